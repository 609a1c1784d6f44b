#include <cerrno>
#include <filesystem>

#include "core/copy/KZVLocalFS.h"
#include "foundation/Paths.h"
#include "kzv/Entry.h"
#include "kzv/TransferReport.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

namespace fs = std::filesystem;

class PutVerb final : public Verb {
 public:
  Words words() const override {
    return {"put", "Copy a file or folder from this computer to the account",
            "  kzv put report.pdf /Documents\n  kzv put ~/Pictures/Photos /Photos-2024"};
  }
  void declare(VerbArguments& arguments) override {
    arguments
        .value("LOCAL", local_,
               "File or folder of this computer. Links to files are followed. A link to a folder is "
               "followed only if it is LOCAL itself; below a folder it is reported and left out, like with "
               "cp -r and rsync")
        .required();
    arguments
        .value("REMOTE", remote_,
               "Where to: an existing folder, in which it keeps its name, or a new path in an existing "
               "folder")
        .required();
  }

  void run(VerbContext& context) override {
    if (!context.isLocalPath(local_)) return;
    const auto volume = context.openVolume();
    const std::string path = volume ? context.pathFrom(remote_) : std::string();
    if (path.empty() || context.shouldStop(path)) return;
    std::error_code code;
    const std::string local = localPath();
    if (!fs::exists(local, code)) return context.fail(local_, NSError::posix(ENOENT, ""));
    NSErrorRef error;
    const bool isIntoFolder = remote_.ends_with('/') || isFolder(*volume, path, &error);
    const std::string folder = isIntoFolder ? path : deletingLastPathComponent(path);
    // A mistyped folder must not be created.
    if (!isFolder(*volume, folder, &error)) return context.fail(folder, error);
    const std::string target = isIntoFolder ? appendingPathComponent(path, lastPathComponent(local)) : path;
    context.setSubject(local_);
    const KZVBatchId batchId;
    TransferReport report(context, batchId, TransferReport::Direction::fromDisk);
    const bool isComplete = KZVLocalFS::shared().sendFiles(
        batchId, local, volume, target, {}, report.totalProgress(), report.itemCopied(), &error);
    report.finish(isComplete, error, local_);
  }

 private:
  /// Absolute, without "." and a slash at its end, so that it has a name.
  std::string localPath() const {
    std::error_code code;
    fs::path path = fs::absolute(local_, code).lexically_normal();
    if (!path.has_filename()) path = path.parent_path();
    return path.string();
  }

  static bool isFolder(FSPlugin& volume, const std::string& path, NSErrorRef* error) {
    if (path == "/") return true;
    const auto attributes = volume.attributesAtPath(path, error);
    if (!attributes) return false;
    if (Entry::from(path, *attributes).isDirectory) return true;
    *error = NSError::posix(ENOTDIR, "");
    return false;
  }

  std::string local_;
  std::string remote_;
};

}  // namespace

std::unique_ptr<Verb> makePutVerb() { return std::make_unique<PutVerb>(); }

}  // namespace kzv::cli
