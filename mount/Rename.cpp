#include "mount/Rename.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "core/KZVSupport.h"
#include "foundation/NSLog.h"
#include "foundation/Paths.h"
#include "mount/MountErrors.h"

namespace kzv::mount {

namespace {

constexpr auto never = [] { return false; };

bool isInside(const MountNode& node, const MountNode& top) KZV_REQUIRES(treeState) {
  for (const MountNode* each = &node; each; each = each->parent)
    if (each == &top) return true;
  return false;
}

/// Whether the volume has the item; nothing when that cannot be found out now.
std::optional<bool> exists(VolumeCalls& calls, const std::string& path) {
  NSErrorRef error;
  if (calls.volume().attributesAtPath(path, &error)) return true;
  return calls.errnoFor(error) == ENOENT ? std::optional(false) : std::nullopt;
}

/// Whether the rename was finished or undone, so that its entry can be removed.
bool finishInterrupted(VolumeCalls& calls, const UploadJournal::Rename& rename) {
  const auto isAside = exists(calls, rename.aside);
  if (!isAside) return false;
  if (!*isAside) return true;
  const auto isTargetThere = exists(calls, rename.to);
  const auto isSourceThere = isTargetThere ? exists(calls, rename.from) : std::nullopt;
  if (!isSourceThere) return false;
  if (!*isTargetThere) return calls.move(rename.aside, rename.to, never) == 0;
  // If the source is still at its old path, the item at the new one is another device's: then the item moved
  // aside stays.
  return *isSourceThere || calls.remove(rename.aside, never) == 0;
}

}  // namespace

// --- The plan

int Rename::run(MountParts& parts, Lookups& lookups, TreeChanges& changes, const Request& request,
                const IsInterrupted& isInterrupted) {
  while (true) {
    Rename rename(parts, changes, request, isInterrupted);
    if (const int reason = rename.lookUp(lookups)) return reason;
    const int reason = rename.run();
    // ENOENT for a node that was replaced meanwhile: the name still exists, with the newer version.
    if (reason != ENOENT || !changes.isReplaced(rename.source_)) return reason;
  }
}

int Rename::lookUp(Lookups& lookups) {
  toKind_ = kindOfName(*parts_.volume, request_.toName);
  if (const int reason = errnoOf(toKind_)) return reason;
  const auto fromFolder = lookups.find(request_.fromFolder);
  toFolder_ = lookups.find(request_.toFolder);
  const auto source = parts_.listings.child(fromFolder, request_.fromName, isInterrupted_);
  if (source.error || !source.value) return source.error ? source.error : ENOENT;
  const auto target = parts_.listings.child(toFolder_, request_.toName, isInterrupted_);
  source_ = source.value;
  target_ = target.value;
  return target.error;
}

int Rename::run() {
  if (!becomesLocal()) return perform(nullptr);
  if (source_->isFolder) return EINVAL;
  // The bytes are fetched before the claim, since fetching locks the path itself.
  const auto bytes = parts_.contents.useForReading(source_, isInterrupted_);
  if (bytes.error) return bytes.error;
  const int reason = perform(bytes.value);
  hold_ = {};
  parts_.contents.removeUser(source_, bytes.value, FileContent::Access::read);
  return reason;
}

/// Whether the new name is one that is not uploaded. If the volume has an item of that name anyway (created
/// by another client), the file replaces it there.
bool Rename::becomesLocal() const {
  const TreeLock lock(parts_.tree);
  return toKind_ == NameKind::localOnly && !(target_ && target_->isRemote);
}

/// @param bytes  the content of a file that becomes local, else null.
int Rename::perform(const std::shared_ptr<FileContent>& bytes) {
  if (const int reason = claim()) return reason;
  // Happens when the kernel has an outdated entry of the name.
  if (fromPath_ == toPath_) return request_.target == Target::mustNotExist ? EEXIST : 0;
  if (const int reason = checkTarget()) return reason;
  const auto content = parts_.contents.find(source_);
  const bool staysLocal = becomesLocal();
  // The file was replaced meanwhile, or there is another target now.
  if (staysLocal != (bytes != nullptr) || (bytes && content != bytes)) return ESTALE;
  if (staysLocal && !content->isLocalOnly()) return renameToLocal(content);
  if (isSourceRemote_) return renameRemote();
  if (source_->isFolder) return renameLocalFolder();
  return renameUnsent(content, staysLocal);
}

int Rename::claim() {
  while (true) {
    std::string fromKey;
    std::string toKey;
    std::shared_ptr<FileContent> targetContent;
    {
      const TreeLock lock(parts_.tree);
      if (!resolvePaths()) return ENOENT;
      if (isInside(*toFolder_, *source_)) return EINVAL;  // into itself
      fromKey = parts_.volume->pathKey(fromPath_);
      toKey = parts_.volume->pathKey(toPath_);
      if (target_) targetContent = target_->content;
    }
    // Makes background uploads stop.
    const FileContent::Waiter sourceWaiter(parts_.contents.find(source_));
    const FileContent::Waiter targetWaiter(targetContent);
    auto hold =
        parts_.paths.locks().hold({{fromKey, PathLocks::Kind::subtree}, {toKey, PathLocks::Kind::subtree}},
                                  [this] { return parts_.calls.isStopping() || isInterrupted_(); });
    if (!hold) return EINTR;
    hold_ = *std::move(hold);
    {
      const TreeLock lock(parts_.tree);
      if (!resolvePaths()) return ENOENT;
      MountTree::noteChangeHere(source_->parent);
      MountTree::noteChangeHere(toFolder_.get());
      if (parts_.volume->pathKey(fromPath_) == fromKey && parts_.volume->pathKey(toPath_) == toKey) return 0;
    }
    hold_ = {};
  }
}

/// False when the source or the folder is no longer in the tree.
bool Rename::resolvePaths() {
  if (!parts_.tree.contains(*source_) || !parts_.tree.contains(*toFolder_) || !source_->parent) return false;
  target_ = parts_.tree.child(*toFolder_, request_.toName);
  if (target_ == source_) target_ = nullptr;  // another spelling of its own name
  isSourceRemote_ = source_->isRemote;
  isTargetRemote_ = target_ && target_->isRemote;
  targetName_ = target_ ? target_->name : "";
  fromPath_ = MountTree::pathOf(*source_);
  toPath_ = appendingPathComponent(MountTree::pathOf(*toFolder_), request_.toName);
  return true;
}

int Rename::checkTarget() {
  if (!target_) return 0;
  if (request_.target == Target::mustNotExist) return EEXIST;
  if (source_->isFolder && !target_->isFolder) return ENOTDIR;
  if (!source_->isFolder && target_->isFolder) return EISDIR;
  return target_->isFolder ? changes_.checkEmpty(target_, toPath_, isInterrupted_) : 0;
}

// --- Files that stay on this machine, or are not uploaded yet

/// A file of the volume becomes local. Programs do this when saving: they rename the document to a temporary
/// name before they create the new one.
int Rename::renameToLocal(const std::shared_ptr<FileContent>& content) {
  const WriteBase base = content->base();
  NSDate::Time modified{};
  {
    const TreeLock lock(parts_.tree);
    modified = source_->modified;
  }
  if (const int reason = content->keepLocal(toPath_)) return reason;
  content->setModified(modified);
  const bool staysOnVolume = isSourceRemote_ && isChangedElsewhere(source_, fromPath_);
  if (isSourceRemote_ && !staysOnVolume) {
    if (const int reason = parts_.calls.remove(fromPath_, never)) {
      // It may have been removed, if only the answer was lost: so it is uploaded again to its old name.
      if (content->sendFromNow(base, fromPath_) == 0)
        parts_.queue.add(source_, content, parts_.delays.firstUploadRetry);
      return reason;
    }
  }
  if (target_) changes_.removeFromTree(target_, request_.toName);
  {
    const TreeLock lock(parts_.tree);
    source_->isRemote = false;
    source_->version.clear();
    source_->isOutdated |= staysOnVolume;
  }
  updateTree();
  return 0;
}

/// A folder that another device has deleted exists here as long as it has files that stay on this machine.
int Rename::renameLocalFolder() {
  if (isTargetRemote_) {
    if (const int reason = parts_.calls.remove(toPath_, isInterrupted_)) return reason;
  }
  if (target_) changes_.removeFromTree(target_, request_.toName);
  parts_.leftovers.move(fromPath_, toPath_);
  updateTree();
  return 0;
}

/// A file that the volume does not have yet is renamed here only; the file that it replaces stays on the
/// volume until the upload.
int Rename::renameUnsent(const std::shared_ptr<FileContent>& content, bool staysLocal) {
  if (!content) return EBUSY;  // another device has just deleted it
  const WriteBase base = parts_.contents.baseToReplace(target_);
  const bool isNowUploaded = content->isLocalOnly() && !staysLocal;
  if (isNowUploaded) {
    if (const int reason = content->sendFromNow(base, toPath_)) return reason;
  } else {
    content->setBase(base);
  }
  if (target_) changes_.removeFromTree(target_, request_.toName);
  updateTree();
  {
    const TreeLock lock(parts_.tree);
    source_->isRemote = isTargetRemote_;
    // Without a pending upload the bytes are not based on the target's version: the next listing shows that
    // version.
    source_->version = target_ && content->isUnsent() ? target_->version : "";
  }
  if (!isNowUploaded || content->writers() > 0) return 0;
  hold_ = {};  // the upload locks the path itself
  const int reason = parts_.uploader.send(source_, content, isInterrupted_);
  parts_.contents.releaseUnused(source_, content);
  // The file has its new name, and its bytes are safe. After an error the kernel would keep the old name.
  return content->isRecorded() ? 0 : reason;
}

// --- On the volume

bool Rename::isChangedElsewhere(const MountNodeRef& node, const std::string& path) {
  std::string shown;
  {
    const TreeLock lock(parts_.tree);
    shown = node->version;
  }
  return parts_.calls.isReplaced(path, shown);
}

int Rename::renameRemote() {
  Aside aside;
  if (isTargetRemote_) {
    if (const int reason = moveAside(aside)) return reason;
  }
  const auto revisionBefore = parts_.volume->revisionAtPath(fromPath_);
  // Once the target has been moved aside, the rename is finished or undone.
  const int reason =
      parts_.calls.move(fromPath_, toPath_, aside.path.empty() ? isInterrupted_ : IsInterrupted(never));
  if (!aside.path.empty()) finishAside(aside, reason == 0);
  if (reason != 0) return reason;
  if (target_) changes_.removeFromTree(target_, request_.toName);
  parts_.leftovers.move(fromPath_, toPath_);
  std::vector<MountNodeRef> watched;
  noteMoved(revisionBefore);
  {
    const TreeLock lock(parts_.tree);
    MountTree::collectWatched(*source_, watched);
  }
  updateTree();
  hold_ = {};
  parts_.watches.renew(watched);
  return 0;
}

int Rename::moveAside(Aside& aside) {
  const std::string folder = deletingLastPathComponent(toPath_);
  const std::string targetPath = appendingPathComponent(folder, targetName_);
  parts_.contents.fetchForReaders(target_, targetPath, isInterrupted_);
  aside.stays = isChangedElsewhere(target_, targetPath);
  const std::string unique = KZVSupport::uniquePathComponent().substr(0, 8);
  const std::string name = aside.stays ? conflictName(*parts_.volume, targetName_, unique)
                                       : asideName(*parts_.volume, targetName_, unique);
  aside.path = appendingPathComponent(folder, name);
  aside.id = parts_.journal->newId();
  // A version that stays must not be removed after a restart, so it is not recorded in the journal.
  const auto error =
      aside.stays ? nullptr
                  : parts_.journal->put(UploadJournal::Rename{aside.id, fromPath_, toPath_, aside.path});
  if (error) return errnoOf(error);
  const int reason = parts_.calls.move(targetPath, aside.path, isInterrupted_);
  if (reason != 0) parts_.journal->forgetRename(aside.id);
  return reason;
}

void Rename::finishAside(const Aside& aside, bool isRenamed) {
  int reason = 0;
  if (!isRenamed) reason = parts_.calls.move(aside.path, toPath_, never);
  if (isRenamed && !aside.stays) reason = parts_.calls.remove(aside.path, never);
  if (isRenamed && aside.stays) {
    NSLog(NSLogLevel::warning, "mount",
          toPath_ + " was changed on another device meanwhile; that version is kept beside it as " +
              aside.path);
    parts_.changed->add(toFolder_);
  } else if (reason == 0) {
    parts_.journal->forgetRename(aside.id);
  } else {
    NSLog(NSLogLevel::warning, "mount",
          "the item that was at " + toPath_ + " stays at " + aside.path +
              " until this volume is mounted again");
  }
}

/// Records the source's version after the move, which may have changed it. Local changes that were based on
/// the version before are now based on this one. If another device had replaced the file unnoticed, its
/// version was moved: a listing then shows it like any newer version.
void Rename::noteMoved(const std::optional<std::string>& revisionBefore) {
  const auto revision = parts_.volume->revisionAtPath(toPath_);
  // From the volume's cache, filled by the answer to the move: no request.
  const auto item = revision && !source_->isFolder ? parts_.volume->itemAtPath(toPath_, nullptr) : nullptr;
  std::shared_ptr<FileContent> content;
  {
    const TreeLock lock(parts_.tree);
    source_->isRemote = true;
    if (!revision || source_->isReplaced) return;
    const bool isSameFile =
        item && item->size() == source_->sizeBytes && item->modificationDate() == source_->listedModified;
    if (!source_->isFolder && source_->version != *revision && !isSameFile) {
      toFolder_->inside().listing = MountNode::Folder::Listing::outOfDate;
      parts_.changed->add(toFolder_);
      return;
    }
    source_->version = *revision;
    content = source_->content;
  }
  if (content && revisionBefore && content->base().revision == *revisionBefore)
    content->setBase({WriteBase::Kind::revision, *revision});
}

void Rename::recover(VolumeCalls& calls, UploadJournal& journal) {
  for (const UploadJournal::Rename& rename : journal.renames())
    if (finishInterrupted(calls, rename)) journal.forgetRename(rename.id);
}

// --- In the tree

/// A listing may have been applied before: it may have removed the source, or added another node under its
/// new name, or both.
void Rename::updateTree() {
  std::vector<MountNodeRef> files;
  std::vector<std::string> paths;
  std::vector<MountNodeRef> unwatched;
  Invalidations invalidations;
  {
    const TreeLock lock(parts_.tree);
    const bool isInTree = parts_.tree.contains(*source_);
    MountTree::noteChangeHere(source_->parent);
    MountTree::noteChangeHere(toFolder_.get());
    if (source_->isReplaced) {  // another device's version was moved; a listing shows it
      toFolder_->inside().listing = MountNode::Folder::Listing::outOfDate;
      parts_.changed->add(toFolder_);
      return;
    }
    if (!parts_.tree.contains(*toFolder_)) {  // deleted elsewhere just now
      if (isInTree && !MountTree::hasLocalChanges(*source_)) parts_.tree.remove(source_);
      return;
    }
    if (const auto other = parts_.tree.child(*toFolder_, request_.toName); other && other != source_) {
      MountTree::collectWatched(*other, unwatched);
      parts_.tree.remove(other);
    }
    if (isInTree) {
      // The volume has another version at the old path, which a listing shows once this one has moved.
      if (source_->isOutdated) parts_.changed->add(source_->parent->shared_from_this());
      parts_.tree.move(source_, *toFolder_, request_.toName);
    } else {
      if (source_->isFolder) source_->inside().listing = MountNode::Folder::Listing::unknown;
      parts_.tree.add(*toFolder_, source_, request_.toName);
      invalidations.entries.emplace_back(toFolder_->id, request_.toName);
      invalidations.listings.push_back(toFolder_->id);
    }
    MountTree::collectContents(*source_, files);
    for (const auto& file : files) paths.push_back(MountTree::pathOf(*file));
  }
  for (const auto& folder : unwatched) parts_.watches.unwatch(*folder);
  for (std::size_t i = 0; i < files.size(); ++i)
    if (const auto content = parts_.contents.find(files[i])) content->moveRecord(paths[i]);
  invalidations.sendTo(parts_.kernel);
}

}  // namespace kzv::mount
