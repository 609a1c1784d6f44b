#include "mount/Uploader.h"

#include <cerrno>
#include <utility>

#include <unistd.h>

#include "foundation/NSDate.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/Paths.h"

namespace kzv::mount {

Uploader::Uploader(VolumeCalls& calls, std::shared_ptr<UploadJournal> journal, MountTree& tree,
                   NodePaths& paths, ContentStore& contents, FolderListings& listings, SendQueue& queue,
                   ChangedFolders& changed, KernelCache& kernel, const MountDelays& delays)
    : calls_(calls),
      journal_(std::move(journal)),
      tree_(tree),
      paths_(paths),
      contents_(contents),
      listings_(listings),
      queue_(queue),
      changed_(changed),
      kernel_(kernel),
      delays_(delays) {}

std::optional<HeldPath> Uploader::holdTarget(const MountNodeRef& node, const FileContent& content) {
  std::string elsewhere = content.elsewhere();
  if (elsewhere.empty()) return paths_.hold(node);
  return paths_.holdPath(std::move(elsewhere));
}

int Uploader::send(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                   const IsInterrupted& isInterrupted) {
  return send(node, content, Mode::foreground, isInterrupted);
}

int Uploader::send(const MountNodeRef& node, const std::shared_ptr<FileContent>& content, Mode mode,
                   const IsInterrupted& isInterrupted) {
  const auto held = holdTarget(node, *content);
  if (!held) {
    content->discard();  // removed while it was open
    return 0;
  }
  const bool isBackground = mode == Mode::background;
  const auto sending = content->beginSending(isBackground);
  if (!sending) return 0;
  const std::string path = held->path;
  {
    const TreeLock lock(tree_);
    MountTree::noteChangeHere(node->parent);
  }
  if (const auto error = content->record(path, UploadJournal::Durability::process))
    NSLog(
        NSLogLevel::warning, "mount",
        "cannot record in the journal that " + path + " is to be uploaded: " + error->localizedDescription());
  const auto source = NSURL::fileURLWithPath(journal_->dataPath(sending->id));
  const auto shouldContinue = [&](NSRange) {
    return !calls_.isStopping() && !isInterrupted() && !(isBackground && content->hasWaiters());
  };
  std::optional<StoredFile> stored;
  std::string failure;
  const int reason = calls_.attempt(isInterrupted, [&](NSErrorRef* error) {
    stored = calls_.volume().storeFile(*source, path, sending->base, shouldContinue, error);
    if (!stored) failure = *error ? (*error)->localizedDescription() : "the account is no longer linked";
    return stored.has_value();
  });
  if (reason == 0) {
    if (content->elsewhere().empty()) {
      noteStored(node, content, path, *stored);
    } else {
      content->setElsewhere(stored->path);
      listings_.refreshSoon(deletingLastPathComponent(stored->path));
    }
    content->endSending(baseOf(stored->revision.value_or("")));
    return 0;
  }
  content->record(path, UploadJournal::Durability::power, failure);
  content->endSending(std::nullopt);
  if (!isBackground && !calls_.isStopping()) {
    NSLog(NSLogLevel::warning, "mount",
          path + " could not be uploaded (" + failure + "); it is kept, and the upload will be retried");
    queue_.add(node, content, delays_.firstUploadRetry);
  }
  return reason;
}

void Uploader::noteStored(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                          const std::string& path, const StoredFile& stored) {
  logIfStoredElsewhere(path, stored);
  const bool isElsewhere = isStoredElsewhere(path, stored);
  // From the volume's cache, filled by the answer to the upload: no request.
  const auto attributes = isElsewhere ? nullptr : calls_.volume().attributesAtPath(path, nullptr);
  const auto date = attributes ? as<NSDate>(attributes->objectForKey(NSFileModificationDate)) : nullptr;
  Invalidations invalidations;
  {
    const TreeLock lock(tree_);
    node->isRemote = true;
    if (!node->parent) return;
    MountNode& folder = *node->parent;
    ++folder.inside().changes;
    MountTree::noteChangeHere(&folder);
    if (!isElsewhere) {
      node->version = stored.revision.value_or("");
      node->sizeBytes = content->sizeBytes();
      if (date) node->listedModified = date->time();
      return;
    }
    // The name belongs to the other version. Later writes of a file that is still open go to the new path.
    content->setElsewhere(stored.path);
    invalidations.contents.push_back(node->id);
    invalidations.listings.push_back(folder.id);
    tree_.remove(node);
    node->isReplaced = true;
    folder.inside().listing = MountNode::Folder::Listing::outOfDate;
    changed_.add(folder.shared_from_this());
  }
  invalidations.sendTo(kernel_);
}

bool Uploader::isStoredElsewhere(const std::string& path, const StoredFile& stored) const {
  return calls_.volume().pathKey(stored.path) != calls_.volume().pathKey(path);
}

void Uploader::logIfStoredElsewhere(const std::string& path, const StoredFile& stored) const {
  if (isStoredElsewhere(path, stored))
    NSLog(NSLogLevel::warning, "mount",
          path +
              " was changed on another device meanwhile; the version of this machine is kept beside it as " +
              stored.path);
}

bool Uploader::sendWaiting(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) {
  const int reason = send(node, content, Mode::background, [] { return false; });
  contents_.releaseUnused(node, content);
  // A writer uploads it on close.
  return reason == 0 && (!content->isUnsent() || content->writers() > 0);
}

/// Uploads a leftover that no folder shows: its folder was deleted, or another item has its name.
bool Uploader::sendLeftover(const UploadJournal::Upload& leftover) {
  const HeldPath held = paths_.holdPath(leftover.path);
  const std::string data = journal_->dataPath(leftover.id);
  const auto source = NSURL::fileURLWithPath(data);
  std::optional<StoredFile> stored;
  UploadJournal::Upload failed = leftover;
  const auto store = [&](NSErrorRef* error) {
    const auto shouldContinue = [this](NSRange) { return !calls_.isStopping(); };
    stored = calls_.volume().storeFile(*source, leftover.path, leftover.base, shouldContinue, error);
    if (!stored && *error) failed.reason = (*error)->localizedDescription();
    return stored.has_value();
  };
  if (calls_.attempt([] { return false; }, store) != 0) {
    if (failed.reason != leftover.reason) journal_->put(failed, UploadJournal::Durability::process);
    return false;
  }
  journal_->forgetUpload(leftover.id);
  ::unlink(data.c_str());
  logIfStoredElsewhere(leftover.path, *stored);
  listings_.refreshSoon(deletingLastPathComponent(leftover.path));
  return true;
}

void Uploader::listFolder(const std::string& path) {
  listings_.ensurePathListed(path, [this] { return calls_.isStopping(); });
}

}  // namespace kzv::mount
