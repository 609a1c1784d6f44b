
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class MkdirVerb final : public Verb {
 public:
  Words words() const override {
    return {"mkdir", "Create folders; existing ones are left as they are", "  kzv mkdir /Documents/2024"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.values("PATH", typed_, "Folders of the account").required();
  }

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    for (const std::string& typed : typed_) {
      const std::string path = context.pathFrom(typed);
      if (path.empty()) continue;
      if (context.shouldStop(path)) return;
      NSErrorRef error;
      if (!volume->createDirectoryAtPath(path, nullptr, &error)) context.fail(path, error);
    }
  }

 private:
  std::vector<std::string> typed_;
};

}  // namespace

std::unique_ptr<Verb> makeMkdirVerb() { return std::make_unique<MkdirVerb>(); }

}  // namespace kzv::cli
