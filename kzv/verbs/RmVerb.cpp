
#include <fmt/format.h>
#include <unistd.h>

#include "kzv/Console.h"
#include "kzv/Entry.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/InputLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class RmVerb final : public Verb {
 public:
  Words words() const override {
    return {"rm", "Remove files, and folders with everything in them (asks first, at a terminal)",
            "  kzv rm /Documents/old.txt\n  kzv rm -f /Documents/2019"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.flag("-f", isForced_, "Remove folders without asking");
    arguments.values("PATH", typed_, "Files or folders of the account").required();
  }

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    for (const std::string& typed : typed_) {
      const std::string path = context.pathFrom(typed);
      if (path.empty()) continue;
      if (context.shouldStop(path)) return;
      if (path == "/") {
        context.fail(path, hostError(HostErrorCode::badInput, "the root folder cannot be removed"));
      } else if (mayRemove(context, *volume, path)) {
        remove(context, *volume, path);
      }
    }
  }

 private:
  static void remove(VerbContext& context, FSPlugin& volume, const std::string& path) {
    NSErrorRef error;
    if (!volume.removeItemAtPath(path, &error)) context.fail(path, error);
  }

  /// Asks before removing a folder; a script is not asked.
  bool mayRemove(VerbContext& context, FSPlugin& volume, const std::string& path) const {
    if (isForced_ || ::isatty(STDIN_FILENO) != 1) return true;
    const auto attributes = volume.attributesAtPath(path, nullptr);
    if (!attributes || !Entry::from(path, *attributes).isDirectory) return true;
    context.console.prompt(fmt::format("Remove the folder {} with everything in it? [y/N] ", harmless(path)));
    const auto answer = readInputLine();
    if (!answer) context.shouldStop(path);  // the end of the input counts as no
    return answer == "y" || answer == "Y" || answer == "yes";
  }

  bool isForced_ = false;
  std::vector<std::string> typed_;
};

}  // namespace

std::unique_ptr<Verb> makeRmVerb() { return std::make_unique<RmVerb>(); }

}  // namespace kzv::cli
