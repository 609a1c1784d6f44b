
#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Entry.h"
#include "kzv/Formatting.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class StatVerb final : public Verb {
 public:
  Words words() const override {
    return {"stat", "Show the attributes of files and folders", "  kzv stat /Documents/report.pdf"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.values("PATH", typed_, "Files or folders of the account").required();
  }

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    for (const std::string& typed : typed_) {
      const std::string path = context.pathFrom(typed);
      if (path.empty()) continue;
      if (context.shouldStop(path)) return;
      NSErrorRef error;
      if (const auto attributes = volume->attributesAtPath(path, &error)) {
        show(context, Entry::from(path, *attributes));
      } else {
        context.fail(path, error);
      }
    }
  }

 private:
  static void show(VerbContext& context, const Entry& entry) {
    if (context.options.json) return context.console.line(entry.json());
    context.console.line(harmless(entry.path));
    context.console.line(fmt::format("  kind      {}", entry.isDirectory ? "folder" : "file"));
    if (!entry.isDirectory)
      context.console.line(
          fmt::format("  size      {} bytes ({})", entry.sizeBytes, byteCount(entry.sizeBytes)));
    if (entry.modified)
      context.console.line(
          fmt::format("  modified  {}  ({})", localTime(*entry.modified), NSDate::iso8601(*entry.modified)));
  }

  std::vector<std::string> typed_;
};

}  // namespace

std::unique_ptr<Verb> makeStatVerb() { return std::make_unique<StatVerb>(); }

}  // namespace kzv::cli
