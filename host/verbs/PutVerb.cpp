#include <CLI/CLI.hpp>
#include <filesystem>

#include "core/KZVLocalFS.h"
#include "foundation/Paths.h"
#include "host/Entry.h"
#include "host/TransferReport.h"
#include "host/verbs/Verbs.h"

namespace {

namespace fs = std::filesystem;

class PutVerb final : public Verb {
 public:
  Words words() const override {
    return {"put", "Copy a file or folder from this computer to the account",
            "  kzv put report.pdf /Documents\n  kzv put ~/Pictures/Photos /Photos-2024"};
  }
  void declare(CLI::App& command) override {
    command
        .add_option("LOCAL", local_,
                    "File or folder of this computer. Links to files are followed. A link to a folder is "
                    "followed when it is LOCAL itself; below a folder it is reported and left out, as cp -r "
                    "and rsync do not enter it either")
        ->required();
    command
        .add_option(
            "REMOTE", remote_,
            "Where to: an existing folder, which receives it under its own name, or its new path; folders "
            "that are missing above it are made")
        ->required();
  }

  void run(VerbContext& context) override {
    if (!context.isLocalPath(local_)) return;
    const auto volume = context.openVolume();
    const std::string path = volume ? context.pathFrom(remote_) : std::string();
    if (path.empty() || context.shouldStop(path)) return;
    std::error_code code;
    const std::string local = localPath();
    if (!fs::exists(local, code)) return context.fail(local_, NSError::posix(ENOENT, ""));
    const std::string target =
        isFolder(*volume, path) ? appendingPathComponent(path, lastPathComponent(local)) : path;
    context.setSubject(local_);
    const KZVBatchId batchId;
    TransferReport report(context, batchId, TransferReport::Direction::fromDisk);
    NSErrorRef error;
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

  bool isFolder(FSPlugin& volume, const std::string& path) const {
    if (path == "/" || remote_.ends_with('/')) return true;
    const auto attributes = volume.attributesAtPath(path, nullptr);
    return attributes && Entry::from(path, *attributes).isDirectory;
  }

  std::string local_;
  std::string remote_;
};

}  // namespace

std::unique_ptr<Verb> makePutVerb() { return std::make_unique<PutVerb>(); }
