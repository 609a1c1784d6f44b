#include <filesystem>

#include "core/copy/KZVLocalFS.h"
#include "foundation/Paths.h"
#include "kzv/HostError.h"
#include "kzv/TransferReport.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

namespace fs = std::filesystem;

class GetVerb final : public Verb {
 public:
  Words words() const override {
    return {"get", "Copy a file or folder to this computer",
            "  kzv get /Documents/report.pdf .\n  kzv get /Photos ~/Pictures/Photos"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("REMOTE", remote_, "File or folder of the account").required();
    arguments
        .value("LOCAL", local_,
               "Where to: an existing folder, in which it keeps its name, or its new path. A link to a file "
               "or folder is followed; anything else that exists there is not replaced")
        .required();
  }

  void run(VerbContext& context) override {
    if (!context.isLocalPath(local_)) return;
    const auto volume = context.openVolume();
    const std::string path = volume ? context.pathFrom(remote_) : std::string();
    if (path.empty() || context.shouldStop(path)) return;
    const std::string target = targetFor(path);
    if (target.empty()) return context.fail(local_, NSError::posix(ENOENT, ""));
    const KZVBatchId batchId;
    TransferReport report(context, batchId, TransferReport::Direction::toDisk);
    NSErrorRef error;
    const bool isComplete =
        KZVLocalFS::shared().writeFiles(batchId, {std::make_shared<FSItem>(path, volume)}, target, {},
                                        report.totalProgress(), report.itemCopied(), &error);
    report.finish(isComplete, error, path);
  }

 private:
  /// The item's full new path; empty when its folder does not exist: a mistyped one must not be created.
  std::string targetFor(const std::string& path) const {
    std::error_code code;
    const fs::path local = fs::absolute(local_, code).lexically_normal();
    if (fs::is_directory(local, code))
      return path == "/" ? local.string() : appendingPathComponent(local.string(), lastPathComponent(path));
    const bool namesFolder = !local.has_filename();
    return !namesFolder && fs::is_directory(local.parent_path(), code) ? local.string() : std::string();
  }

  std::string remote_;
  std::string local_;
};

}  // namespace

std::unique_ptr<Verb> makeGetVerb() { return std::make_unique<GetVerb>(); }

}  // namespace kzv::cli
