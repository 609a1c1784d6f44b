#include <cerrno>

#include "core/KZVSupport.h"
#include "foundation/NSLog.h"
#include "foundation/Paths.h"
#include "host/mount/MountNames.h"
#include "host/mount/MountedVolume.h"
#include "host/mount/MountedVolume_private.h"

namespace {

int errorOf(NameKind kind) {
  switch (kind) {
    case NameKind::tooLong:
      return ENAMETOOLONG;
    case NameKind::notAllowed:
      return EINVAL;
    case NameKind::remote:
    case NameKind::localOnly:
      break;
  }
  return 0;
}

bool isAtOrBelow(const MountNode& node, const MountNode& top) {
  for (const MountNode* each = &node; each; each = each->parent)
    if (each == &top) return true;
  return false;
}

constexpr auto never = [] { return false; };

/// Where another device's version of the file at `path` is kept; `otherwise` where the volume does not hold
/// such a long name.
std::string besidePath(const FSPlugin& volume, const std::string& path, const std::string& otherwise) {
  const std::string name = lastPathComponent(path);
  const std::size_t dot = name.rfind('.');
  const std::string stem = dot == 0 || dot == std::string::npos ? name : name.substr(0, dot);
  const std::string beside = stem + " (conflicted copy " + KZVSupport::uniquePathComponent().substr(0, 8) +
                             ")" + name.substr(stem.size());
  return volume.nameProblem(beside) ? otherwise
                                    : appendingPathComponent(deletingLastPathComponent(path), beside);
}

}  // namespace

// --- Steps on the service

int MountedVolume::removeRemote(const std::string& path, const IsInterrupted& isInterrupted) {
  const int reason =
      attempt(isInterrupted, [&](NSErrorRef* error) { return volume_->removeItemAtPath(path, error); });
  return reason == ENOENT ? 0 : reason;  // somebody else, or an attempt whose answer was lost
}

int MountedVolume::moveRemote(const std::string& from, const std::string& to,
                              const IsInterrupted& isInterrupted) {
  bool isRepeated = false;
  return attempt(isInterrupted, [&](NSErrorRef* error) {
    if (volume_->moveFromPath(from, to, nullptr, {}, error)) return true;
    // The answer of the attempt before this one may have been lost.
    const bool wasDone = isRepeated && error && errnoOf(*error) == ENOENT && volume_->isExists(to);
    isRepeated = true;
    return wasDone;
  });
}

/// Whether nothing is in the folder, as the service says now: removing a folder removes what is in it. The
/// caller holds its subtree.
bool MountedVolume::isEmptyNow(const MountNodeRef& folder, const std::string& path,
                               const IsInterrupted& isInterrupted, int& error) {
  bool isRemote = false;
  {
    const std::lock_guard lock(treeMutex_);
    isRemote = folder->isRemote;
    if (mustStay(*folder)) {
      error = ENOTEMPTY;
      return false;
    }
  }
  if (hasLeftBelow(path)) {
    error = ENOTEMPTY;
    return false;
  }
  if (!isRemote) return true;
  volume_->pollForChanges();
  bool isEmpty = false;
  error = attempt(isInterrupted, [&](NSErrorRef* reason) {
    const auto items = volume_->contentAtPath(path, false, true, reason);
    isEmpty = items && items->empty();
    return items.has_value();
  });
  if (error == ENOENT) {
    error = 0;
    return true;  // gone already
  }
  if (error == 0 && !isEmpty) error = ENOTEMPTY;
  return error == 0;
}

// --- Making and removing

Answer<MountedVolume::Found> MountedVolume::makeFolder(NodeId folderId, const std::string& name,
                                                       const IsInterrupted& isInterrupted) {
  const NameKind kind = kindOfName(*volume_, name);
  if (const int reason = errorOf(kind)) return {{}, reason};
  if (kind == NameKind::localOnly) return {{}, EINVAL};
  const auto folder = find(folderId);
  const auto child = childOf(folder, name, isInterrupted);
  if (child.error || child.value) return {{}, child.error ? child.error : EEXIST};
  const auto held = holdPath(folder);
  if (!held) return {{}, ENOENT};
  const std::string path = appendingPathComponent(held->path, name);
  const int reason = attempt(
      isInterrupted, [&](NSErrorRef* error) { return volume_->createDirectoryAtPath(path, nullptr, error); });
  if (reason) return {{}, reason};
  MountNodeRef made;
  Found found;
  {
    const std::lock_guard lock(treeMutex_);
    if (!tree_.holds(*folder)) return {{}, ENOENT};
    made = tree_.child(*folder, name);  // a listing may have been faster
    if (made && !made->isFolder) return {{}, EEXIST};
    if (!made) {
      made = tree_.make(true);
      made->isRemote = true;
      made->modified = startTime_;
      // Nothing is in it. Should another device have made it in the same moment, the watch will tell.
      made->inside->listing = MountNode::Inside::Listing::complete;
      tree_.add(*folder, made, name);
    }
    found = foundLocked(made, name);
  }
  watch(made, path);
  return {std::move(found), 0};
}

int MountedVolume::removeFile(NodeId folderId, const std::string& name, const IsInterrupted& isInterrupted) {
  const auto child = childOf(find(folderId), name, isInterrupted);
  if (child.error || !child.value) return child.error ? child.error : ENOENT;
  const MountNodeRef& node = child.value;
  if (node->isFolder) return EISDIR;
  const auto claimed = claimSubtree(node, isInterrupted);
  if (claimed.error == ENOENT && isReplaced(node)) return removeFile(folderId, name, isInterrupted);
  if (claimed.error) return claimed.error;
  if (claimed.value.isRemote) {
    fetchForReaders(node, claimed.value.path, isInterrupted);
    if (const int reason = removeRemote(claimed.value.path, isInterrupted)) return reason;
  }
  takeOut(node, name);
  return 0;
}

int MountedVolume::removeFolder(NodeId folderId, const std::string& name,
                                const IsInterrupted& isInterrupted) {
  const auto child = childOf(find(folderId), name, isInterrupted);
  if (child.error || !child.value) return child.error ? child.error : ENOENT;
  const MountNodeRef& node = child.value;
  if (!node->isFolder) return ENOTDIR;
  const auto claimed = claimSubtree(node, isInterrupted);
  if (claimed.error) return claimed.error;
  int error = 0;
  if (!isEmptyNow(node, claimed.value.path, isInterrupted, error)) {
    inbox_->add(node);  // what is in it may never have been shown
    return error;
  }
  if (claimed.value.isRemote) {
    if (const int reason = removeRemote(claimed.value.path, isInterrupted)) return reason;
  }
  unwatch(*node);
  takeOut(node, name);
  return 0;
}

/// The node alone with everything below it.
Answer<MountedVolume::Claimed> MountedVolume::claimSubtree(const MountNodeRef& node,
                                                           const IsInterrupted& isInterrupted) {
  while (true) {
    std::string key;
    std::shared_ptr<FileContent> content;
    {
      const std::lock_guard lock(treeMutex_);
      if (!tree_.holds(*node)) return {{}, ENOENT};
      key = tree_.keyPathOf(*node);
      content = node->content;
    }
    const FileContent::Wish wish(content);  // a sending in the background gives way
    auto hold =
        paths_.hold({{key, PathLocks::Kind::subtree}}, [&] { return isStopping_ || isInterrupted(); });
    if (!hold) return {{}, EINTR};
    Claimed claimed;
    claimed.hold = *std::move(hold);
    const std::lock_guard lock(treeMutex_);
    if (!tree_.holds(*node)) return {{}, ENOENT};
    if (tree_.keyPathOf(*node) != key) continue;
    claimed.path = MountTree::pathOf(*node);
    claimed.isRemote = node->isRemote;
    return {std::move(claimed), 0};
  }
}

/// Whether a listing has put a newer version's node in its place.
bool MountedVolume::isReplaced(const MountNodeRef& node) const {
  const std::lock_guard lock(treeMutex_);
  return node->isReplaced;
}

/// Takes a removed node out of the tree; what it had to send is sent no more. The kernel knows of `name`.
void MountedVolume::takeOut(const MountNodeRef& node, const std::string& name) {
  std::shared_ptr<FileContent> content;
  Notices notices;
  {
    const std::lock_guard lock(treeMutex_);
    if (node->parent && node->name != name) notices.entries.emplace_back(node->parent->id, node->name);
    content = node->content;
    const bool hidAnother = node->parent && node->isBehind && content && content->isLocalOnly();
    if (hidAnother) inbox_->add(node->parent->shared_from_this());
    tree_.remove(node);
  }
  tell(notices);
  if (!content) return;
  content->discard();
  dropContent(node, content);
}

// --- Renaming

struct MountedVolume::RenamePlan {
  MountNodeRef source;
  MountNodeRef target;  // what is in the way; may be empty
  MountNodeRef toFolder;
  std::string fromPath;
  std::string toPath;
  std::string toName;
  bool isSourceRemote = false;
  bool isTargetRemote = false;
  std::string targetName;
  PathLocks::Hold hold;
};

int MountedVolume::rename(NodeId fromFolderId, const std::string& fromName, NodeId toFolderId,
                          const std::string& toName, Target target, const IsInterrupted& isInterrupted) {
  const NameKind toKind = kindOfName(*volume_, toName);
  if (const int reason = errorOf(toKind)) return reason;
  const auto fromFolder = find(fromFolderId);
  RenamePlan plan;
  plan.toFolder = find(toFolderId);
  plan.toName = toName;
  const auto source = childOf(fromFolder, fromName, isInterrupted);
  if (source.error || !source.value) return source.error ? source.error : ENOENT;
  const auto inTheWay = childOf(plan.toFolder, toName, isInterrupted);
  if (inTheWay.error) return inTheWay.error;
  plan.source = source.value;
  plan.target = inTheWay.value;
  const bool staysHere = staysOnThisMachine(plan, toKind);
  if (staysHere && plan.source->isFolder) return EINVAL;
  std::shared_ptr<FileContent> bytes;
  if (staysHere) {  // before the claim, since fetching holds the path itself
    auto reading = useForReading(plan.source, isInterrupted);
    if (reading.error) return reading.error;
    bytes = reading.value;
  }
  const int reason = renameClaimed(plan, target, staysHere ? bytes : nullptr, toKind, isInterrupted);
  plan.hold = {};
  if (bytes) {
    bytes->removeUser(FileContent::Access::read);
    dropContent(plan.source, bytes);
  }
  if (reason == ENOENT && isReplaced(plan.source))
    return rename(fromFolderId, fromName, toFolderId, toName, target, isInterrupted);
  return reason;
}

/// Whether the file gets a name that the volume does not hold; an item of that name that it does hold (other
/// clients made it) is replaced there.
bool MountedVolume::staysOnThisMachine(const RenamePlan& plan, NameKind toKind) const {
  const std::lock_guard lock(treeMutex_);
  return toKind == NameKind::localOnly && !(plan.target && plan.target->isRemote);
}

/// @param bytes  of a file that is to stay on this machine, else null.
int MountedVolume::renameClaimed(RenamePlan& plan, Target target, const std::shared_ptr<FileContent>& bytes,
                                 NameKind toKind, const IsInterrupted& isInterrupted) {
  if (const int reason = claim(plan, isInterrupted)) return reason;
  if (plan.target) {
    if (target == Target::mustNotExist) return EEXIST;
    if (plan.source->isFolder && !plan.target->isFolder) return ENOTDIR;
    if (!plan.source->isFolder && plan.target->isFolder) return EISDIR;
    int error = 0;
    if (plan.target->isFolder && !isEmptyNow(plan.target, plan.toPath, isInterrupted, error)) return error;
  }
  const auto content = contentOf(plan.source);
  const bool staysHere = staysOnThisMachine(plan, toKind);
  // Replaced meanwhile, or what is in the way is another: the kernel looks again.
  if (staysHere != (bytes != nullptr) || (bytes && content != bytes)) return ESTALE;
  if (staysHere && !content->isLocalOnly()) return renameToLocal(plan, content);
  if (plan.isSourceRemote) return renameRemote(plan, isInterrupted);
  if (plan.source->isFolder) return renameLocalFolder(plan, isInterrupted);
  return renameUnsent(plan, staysHere, isInterrupted);
}

/// A file of the account becomes one that stays here: programs save so, moving the document out of the way
/// under the name of a temporary file before they put the new one in its place.
int MountedVolume::renameToLocal(RenamePlan& plan, const std::shared_ptr<FileContent>& content) {
  const WriteBase base = content->base();
  NSDate::Time modified{};
  {
    const std::lock_guard lock(treeMutex_);
    modified = plan.source->modified;
  }
  if (const int reason = content->keepLocal(plan.toPath)) return reason;
  content->setModified(modified);
  // A version that another device has put there meanwhile stays.
  const bool keepsOther = plan.isSourceRemote && isChangedElsewhere(plan.source, plan.fromPath);
  if (plan.isSourceRemote && !keepsOther) {
    if (const int reason = removeRemote(plan.fromPath, never)) {
      // It may be gone all the same, if only the answer was lost: so it is stored again under its old name.
      if (content->sendFromNow(base, plan.fromPath) == 0) sendLater(plan.source, content, firstRetryDelay);
      return reason;
    }
  }
  if (plan.target) takeOut(plan.target, plan.toName);
  {
    const std::lock_guard lock(treeMutex_);
    plan.source->isRemote = false;
    plan.source->version.clear();
    if (keepsOther) inbox_->add(plan.source->parent->shared_from_this());
  }
  hang(plan);
  return 0;
}

/// A folder that another device has deleted is here for as long as files are in it that stay on this machine.
int MountedVolume::renameLocalFolder(RenamePlan& plan, const IsInterrupted& isInterrupted) {
  if (plan.isTargetRemote) {
    if (const int reason = removeRemote(plan.toPath, isInterrupted)) return reason;
  }
  if (plan.target) takeOut(plan.target, plan.toName);
  moveLeft(plan.fromPath, plan.toPath);
  hang(plan);
  return 0;
}

/// Looks the plan's nodes and paths up and claims both subtrees.
int MountedVolume::claim(RenamePlan& plan, const IsInterrupted& isInterrupted) {
  while (true) {
    std::string fromKey;
    std::string toKey;
    const auto look = [&] {
      if (!tree_.holds(*plan.source) || !tree_.holds(*plan.toFolder) || !plan.source->parent) return false;
      plan.target = tree_.child(*plan.toFolder, plan.toName);
      if (plan.target == plan.source) plan.target = nullptr;  // another spelling of its own name
      plan.isSourceRemote = plan.source->isRemote;
      plan.isTargetRemote = plan.target && plan.target->isRemote;
      plan.targetName = plan.target ? plan.target->name : "";
      plan.fromPath = MountTree::pathOf(*plan.source);
      plan.toPath = appendingPathComponent(MountTree::pathOf(*plan.toFolder), plan.toName);
      return true;
    };
    {
      const std::lock_guard lock(treeMutex_);
      if (!look()) return ENOENT;
      if (isAtOrBelow(*plan.toFolder, *plan.source)) return EINVAL;  // into itself
      fromKey = volume_->pathKey(plan.fromPath);
      toKey = volume_->pathKey(plan.toPath);
    }
    const FileContent::Wish wish(contentOf(plan.source));
    const FileContent::Wish targetWish(plan.target ? contentOf(plan.target) : nullptr);
    auto hold = paths_.hold({{fromKey, PathLocks::Kind::subtree}, {toKey, PathLocks::Kind::subtree}},
                            [&] { return isStopping_ || isInterrupted(); });
    if (!hold) return EINTR;
    plan.hold = *std::move(hold);
    const std::lock_guard lock(treeMutex_);
    if (!look()) return ENOENT;
    if (volume_->pathKey(plan.fromPath) == fromKey && volume_->pathKey(plan.toPath) == toKey) return 0;
    plan.hold = {};
  }
}

/// A file that the service does not have yet takes its new place here; what it replaces stays on the service
/// until the new bytes do.
int MountedVolume::renameUnsent(RenamePlan& plan, bool staysLocal, const IsInterrupted& isInterrupted) {
  const auto content = contentOf(plan.source);
  if (!content) return EBUSY;  // another device has just deleted it
  const WriteBase base = baseToReplace(plan.target);
  const bool beginsToBeSent = content->isLocalOnly() && !staysLocal;
  if (beginsToBeSent) {
    if (const int reason = content->sendFromNow(base, plan.toPath)) return reason;
  } else {
    content->setBase(base);
  }
  if (plan.target) takeOut(plan.target, plan.toName);
  hang(plan);
  {
    const std::lock_guard lock(treeMutex_);
    plan.source->isRemote = plan.isTargetRemote;
    plan.source->version = plan.target ? plan.target->version : "";
  }
  if (!beginsToBeSent || content->writers() > 0) return 0;
  plan.hold = {};  // sending holds the path itself
  const int reason = send(plan.source, content, Manner::foreground, isInterrupted);
  dropContent(plan.source, content);
  // It has its new name here, and its bytes are safe: told as a failure, the kernel would not believe the
  // name.
  return content->isRecorded() ? 0 : reason;
}

/// Whether another device has replaced the file since it was shown here, as the service says now.
bool MountedVolume::isChangedElsewhere(const MountNodeRef& node, const std::string& path) {
  std::string shown;
  {
    const std::lock_guard lock(treeMutex_);
    shown = node->version;
  }
  if (shown.empty()) return false;
  volume_->pollForChanges();
  const auto item = volume_->itemAtPath(path, nullptr);
  return item && !item->isDirectory() && item->version() != shown;
}

/// On the service nothing takes the place of something else: what is in the way is set aside first, and comes
/// back if the move fails. The journal knows of it, should this process die in between.
int MountedVolume::renameRemote(RenamePlan& plan, const IsInterrupted& isInterrupted) {
  std::string aside;
  UploadJournal::Rename record;
  bool keepsOther = false;
  if (plan.isTargetRemote) {
    const std::string inTheWay =
        appendingPathComponent(deletingLastPathComponent(plan.toPath), plan.targetName);
    fetchForReaders(plan.target, inTheWay, isInterrupted);
    keepsOther = isChangedElsewhere(plan.target, inTheWay);
    aside = appendingPathComponent(
        deletingLastPathComponent(plan.toPath),
        setAsideName(*volume_, plan.targetName, KZVSupport::uniquePathComponent().substr(0, 8)));
    if (keepsOther) aside = besidePath(*volume_, inTheWay, aside);
    record = {journal_->newId(), plan.fromPath, plan.toPath, aside};
    // A version that stays where it is set aside must not be removed after a restart.
    const auto error = keepsOther ? nullptr : journal_->put(record);
    if (error) return errnoOf(error);
    if (const int reason = moveRemote(inTheWay, aside, isInterrupted)) {
      journal_->forgetRename(record.id);
      return reason;
    }
  }
  const auto revisionBefore = volume_->revisionAtPath(plan.fromPath);
  const int reason =
      moveRemote(plan.fromPath, plan.toPath, aside.empty() ? isInterrupted : IsInterrupted(never));
  if (!aside.empty()) {
    int second = 0;
    if (reason != 0) second = moveRemote(aside, plan.toPath, never);
    if (reason == 0 && !keepsOther) second = removeRemote(aside, never);
    if (reason == 0 && keepsOther) {
      NSLog(NSLogLevel::warning, "mount",
            plan.toPath + " was changed elsewhere meanwhile; that version is kept beside it as " + aside);
      inbox_->add(plan.toFolder);
    } else if (second == 0) {
      journal_->forgetRename(record.id);
    } else {
      NSLog(NSLogLevel::warning, "mount",
            "what was at " + plan.toPath + " lies at " + aside + " until this volume is mounted again");
    }
  }
  if (reason != 0) return reason;
  if (plan.target) takeOut(plan.target, plan.toName);
  moveLeft(plan.fromPath, plan.toPath);
  std::vector<MountNodeRef> watched;
  {
    const std::lock_guard lock(treeMutex_);
    plan.source->isRemote = true;
    if (const auto moved = volume_->revisionAtPath(plan.toPath); moved && !plan.source->isReplaced)
      plan.source->version = *moved;
    MountTree::collectWatched(*plan.source, watched);
  }
  if (const auto content = contentOf(plan.source)) {
    // What was made from the version that has moved goes on from it.
    const auto revision = volume_->revisionAtPath(plan.toPath);
    if (revision && revisionBefore && content->base().revision == *revisionBefore)
      content->setBase({WriteBase::Kind::revision, *revision});
  }
  hang(plan);
  plan.hold = {};
  moveWatches(watched);
  return 0;
}

/// Gives the source its new place in the tree, and what waits in the journal its new path. A listing may have
/// come first: it has taken the source away, or put another node at its new place, or both.
void MountedVolume::hang(RenamePlan& plan) {
  std::vector<MountNodeRef> files;
  std::vector<std::string> paths;
  Notices notices;
  {
    const std::lock_guard lock(treeMutex_);
    const bool isThere = tree_.holds(*plan.source);
    if (plan.source->isReplaced) {  // what has moved is another device's version, which a listing shows
      plan.toFolder->inside->listing = MountNode::Inside::Listing::outOfDate;
      inbox_->add(plan.toFolder);
      return;
    }
    if (!tree_.holds(*plan.toFolder)) {  // deleted elsewhere just now
      if (isThere && !mustStay(*plan.source)) tree_.remove(plan.source);
      return;
    }
    if (const auto other = tree_.child(*plan.toFolder, plan.toName); other && other != plan.source)
      tree_.remove(other);
    if (isThere) {
      tree_.move(plan.source, *plan.toFolder, plan.toName);
    } else {
      if (plan.source->isFolder) plan.source->inside->listing = MountNode::Inside::Listing::unknown;
      tree_.add(*plan.toFolder, plan.source, plan.toName);
      notices.entries.emplace_back(plan.toFolder->id, plan.toName);
      notices.listings.push_back(plan.toFolder->id);
    }
    MountTree::collectContents(*plan.source, files);
    for (const auto& file : files) paths.push_back(MountTree::pathOf(*file));
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (const auto content = contentOf(files[i])) content->moveRecord(paths[i]);
  }
  tell(notices);
}

std::shared_ptr<FileContent> MountedVolume::contentOf(const MountNodeRef& node) const {
  const std::lock_guard lock(treeMutex_);
  return node->content;
}
