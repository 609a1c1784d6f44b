#include "mount/TreeChanges.h"

#include <cerrno>
#include <utility>
#include <vector>

#include "foundation/Paths.h"
#include "mount/MountNames.h"

namespace kzv::mount {

Result<MountNodeRef> TreeChanges::findChild(NodeId folder, const std::string& name,
                                            const IsInterrupted& isInterrupted) {
  auto child = parts_.listings.child(lookups_.find(folder), name, isInterrupted);
  if (!child.error && !child.value) child.error = ENOENT;
  return child;
}

Result<FoundItem> TreeChanges::makeFolder(NodeId folderId, const std::string& name,
                                          const IsInterrupted& isInterrupted) {
  const NameKind kind = kindOfName(*parts_.volume, name);
  if (const int reason = errnoOf(kind)) return {{}, reason};
  if (kind == NameKind::localOnly) return {{}, EINVAL};
  const auto folder = lookups_.find(folderId);
  const auto child = parts_.listings.child(folder, name, isInterrupted);
  if (child.error || child.value) return {{}, child.error ? child.error : EEXIST};
  const auto held = parts_.paths.hold(folder);
  if (!held) return {{}, ENOENT};
  const std::string path = appendingPathComponent(held->path, name);
  {
    const TreeLock lock(parts_.tree);
    MountTree::noteChangeHere(folder.get());
  }
  const auto create = [&](NSErrorRef* error) {
    return parts_.volume->createDirectoryAtPath(path, nullptr, error);
  };
  if (const int reason = parts_.calls.attempt(isInterrupted, create)) return {{}, reason};
  MountNodeRef made;
  FoundItem found;
  {
    const TreeLock lock(parts_.tree);
    if (!parts_.tree.contains(*folder)) return {{}, ENOENT};
    made = parts_.tree.child(*folder, name);  // a listing may have added it meanwhile
    if (made && !made->isFolder) return {{}, EEXIST};
    if (!made) {
      made = parts_.tree.make(true);
      made->isRemote = true;
      made->modified = parts_.startTime;
      // It is empty. If another device has created it at the same moment, its watch will report that.
      made->inside().listing = MountNode::Folder::Listing::complete;
      parts_.tree.add(*folder, made, name);
    }
    MountTree::noteChangeHere(folder.get());
    found = lookups_.found(made, name);
  }
  parts_.watches.watch(made, path);
  return {std::move(found), 0};
}

int TreeChanges::removeFile(NodeId folderId, const std::string& name, const IsInterrupted& isInterrupted) {
  const auto child = findChild(folderId, name, isInterrupted);
  if (child.error) return child.error;
  const MountNodeRef& node = child.value;
  if (node->isFolder) return EISDIR;
  const auto held = parts_.paths.holdSubtree(node, isInterrupted);
  if (held.error == ENOENT && isReplaced(node)) return removeFile(folderId, name, isInterrupted);
  if (held.error) return held.error;
  if (held.value.isRemote) {
    parts_.contents.fetchForReaders(node, held.value.path, isInterrupted);
    if (const int reason = parts_.calls.remove(held.value.path, isInterrupted)) return reason;
  }
  removeFromTree(node, name);
  return 0;
}

int TreeChanges::removeFolder(NodeId folderId, const std::string& name, const IsInterrupted& isInterrupted) {
  const auto child = findChild(folderId, name, isInterrupted);
  if (child.error) return child.error;
  const MountNodeRef& node = child.value;
  if (!node->isFolder) return ENOTDIR;
  const auto held = parts_.paths.holdSubtree(node, isInterrupted);
  if (held.error) return held.error;
  if (const int reason = checkEmpty(node, held.value.path, isInterrupted)) {
    parts_.changed->add(node);  // its items may never have been shown
    return reason;
  }
  if (held.value.isRemote) {
    if (const int reason = parts_.calls.remove(held.value.path, isInterrupted)) return reason;
  }
  removeFromTree(node, name);
  return 0;
}

int TreeChanges::checkEmpty(const MountNodeRef& folder, const std::string& path,
                            const IsInterrupted& isInterrupted) {
  bool isRemote = false;
  {
    const TreeLock lock(parts_.tree);
    isRemote = folder->isRemote;
    if (MountTree::hasLocalChanges(*folder)) return ENOTEMPTY;
  }
  if (parts_.leftovers.hasAnyBelow(path)) return ENOTEMPTY;
  if (!isRemote) return 0;
  parts_.volume->pollForChanges();
  const auto items = parts_.calls.list(path, isInterrupted);
  if (items.error == ENOENT) return 0;  // gone already
  return !items.error && !items.value.empty() ? ENOTEMPTY : items.error;
}

bool TreeChanges::isReplaced(const MountNodeRef& node) const {
  const TreeLock lock(parts_.tree);
  return node->isReplaced;
}

void TreeChanges::removeFromTree(const MountNodeRef& node, const std::string& name) {
  std::shared_ptr<FileContent> content;
  std::vector<MountNodeRef> watched;
  Invalidations invalidations;
  {
    const TreeLock lock(parts_.tree);
    if (node->parent && node->name != name) invalidations.entries.emplace_back(node->parent->id, node->name);
    content = node->content;
    const bool hidAnother = node->parent && node->isOutdated && content && content->isLocalOnly();
    if (hidAnother) parts_.changed->add(node->parent->shared_from_this());
    MountTree::noteChangeHere(node->parent);
    MountTree::collectWatched(*node, watched);
    parts_.tree.remove(node);
  }
  for (const auto& folder : watched) parts_.watches.unwatch(*folder);
  invalidations.sendTo(parts_.kernel);
  if (!content) return;
  content->discard();
  parts_.contents.releaseUnused(node, content);
}

}  // namespace kzv::mount
