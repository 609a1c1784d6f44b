#include <cerrno>

#include "core/copy/CopyBatch.h"
#include "foundation/Paths.h"
#include "kzv/Entry.h"
#include "kzv/HostError.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class MvVerb final : public Verb {
 public:
  Words words() const override {
    return {"mv", "Move or rename a file or folder",
            "  kzv mv /draft.txt /Documents\n  kzv mv /Documents/draft.txt /Documents/final.txt"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("FROM", from_, "File or folder of the account").required();
    arguments.value("TO", to_, "An existing folder, in which it keeps its name, or its new path").required();
  }

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    const std::string from = volume ? context.pathFrom(from_) : std::string();
    const std::string to = from.empty() ? std::string() : context.pathFrom(to_);
    if (to.empty() || context.shouldStop(from)) return;
    if (from == "/")
      return context.fail(from, hostError(HostErrorCode::badInput, "the root folder cannot be moved"));
    const std::string target = targetFor(*volume, from, to);
    NSErrorRef error;
    const std::string folder = deletingLastPathComponent(target);
    if (!isFolder(*volume, folder, &error)) return context.fail(folder, error);
    if (!volume->moveFromPath(from, target, nullptr, {}, &error)) context.fail(from, error);
  }

 private:
  std::string targetFor(FSPlugin& volume, const std::string& from, const std::string& to) const {
    // Another spelling of the item's own path: a new name, not a move into itself.
    const bool isRespelled = volume.pathKey(from) == volume.pathKey(to);
    const bool isInto = to == "/" || (!isRespelled && (to_.ends_with('/') || isFolder(volume, to)));
    return isInto ? appendingPathComponent(to, lastPathComponent(from)) : to;
  }

  /// Checked because volumes create missing folders: a mistyped one must not be created.
  static bool isFolder(FSPlugin& volume, const std::string& path, NSErrorRef* error = nullptr) {
    if (path == "/") return true;
    NSErrorRef reason;
    const auto attributes = volume.attributesAtPath(path, &reason);
    if (attributes && Entry::from(path, *attributes).isDirectory) return true;
    if (attributes) {
      reason = copy::copyError(ENOTDIR, "not a folder");
    } else if (!reason || fsErrorCode(reason) == FSErrorCode::notFound) {
      reason = copy::copyError(ENOENT, "no such folder");
    }
    setError(error, std::move(reason));
    return false;
  }

  std::string from_;
  std::string to_;
};

}  // namespace

std::unique_ptr<Verb> makeMvVerb() { return std::make_unique<MvVerb>(); }

}  // namespace kzv::cli
