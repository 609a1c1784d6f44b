#include "mount/ListingMerge.h"

#include <utility>

namespace kzv::mount {

namespace {

/// Names that the kernel can represent; volumes have no others.
bool canBeShown(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

void ListingMerge::addMissing(MountNode& folder, const FSItems& items) {
  for (const auto& item : items) {
    std::string name = item->name();
    if (!canBeShown(name) || tree_.child(folder, name)) continue;
    const MountNodeRef node = tree_.make(item->isDirectory());
    tree_.add(folder, node, std::move(name));
    update(*node, *item);
  }
  leftovers_.adoptInto(folder);
}

void ListingMerge::apply(MountNode& folder, const FSItems& items) {
  isChanged_ = false;
  std::unordered_set<std::string> listedKeys;
  for (const auto& item : items) {
    std::string name = item->name();
    if (canBeShown(name) && listedKeys.insert(volume_.nameKey(name)).second)
      applyItem(folder, *item, std::move(name));
  }
  removeMissing(folder, listedKeys);
  leftovers_.adoptInto(folder);
  if (isChanged_) invalidations.listings.push_back(folder.id);
}

void ListingMerge::applyItem(MountNode& folder, const FSItem& item, std::string name) {
  MountNodeRef node = tree_.child(folder, name);
  if (node && node->isFolder != item.isDirectory()) {
    if (MountTree::hasLocalChanges(*node)) return;
    remove(node);
    node = nullptr;
  }
  if (node && node->content && node->content->isLocalOnly()) {
    node->isOutdated = true;  // a file that stays here hides the volume's until it is removed
    return;
  }
  if (node && !node->isFolder && isOtherVersion(*node, item)) return showNewVersion(node, item);
  if (!node) {
    node = tree_.make(item.isDirectory());
    tree_.add(folder, node, std::move(name));
    isChanged_ = true;
  }
  update(*node, item);
}

void ListingMerge::removeMissing(MountNode& folder, const std::unordered_set<std::string>& listedKeys) {
  std::vector<MountNodeRef> missing;
  for (const auto& [key, child] : folder.inside().children)
    if (!listedKeys.contains(key)) missing.push_back(child);
  for (const auto& child : missing) {
    if (MountTree::hasLocalChanges(*child)) {
      child->isRemote = false;
      continue;
    }
    child->isReplaced = true;
    remove(child);
    isChanged_ = true;
  }
}

void ListingMerge::remove(const MountNodeRef& node) {
  invalidations.contents.push_back(node->id);
  MountTree::collectWatched(*node, removedWatched);
  tree_.remove(node);
}

/// Compares size and date where the volume has no versions.
bool ListingMerge::isOtherVersion(const MountNode& node, const FSItem& item) {
  if (const std::string version = item.version(); !version.empty()) return node.version != version;
  return node.listedModified != item.modificationDate() || node.sizeBytes != item.size();
}

void ListingMerge::update(MountNode& node, const FSItem& item) {
  if (node.name != item.name()) {
    invalidations.entries.emplace_back(node.parent->id, node.name);
    invalidations.listings.push_back(node.parent->id);
    node.name = item.name();
  }
  if (!node.isFolder && node.content && node.content->isUnsent()) {
    node.isOutdated |= node.version != item.version();
    node.isRemote = true;
    return;  // local changes that are not uploaded yet stay as they are
  }
  if (!node.isRemote || node.isFolder || isOtherVersion(node, item)) {
    node.modified = item.modificationDate().value_or(startTime_);
    node.sizeBytes = item.size();
  }
  node.isRemote = true;
  node.isOutdated = false;
  node.listedModified = item.modificationDate();
  node.version = item.version();
}

/// An older version that is being written or uploaded stays: the volume then keeps both. If it is only being
/// read, the newer version gets a node of its own. Otherwise the node gets the new version, and the kernel's
/// caches are invalidated.
void ListingMerge::showNewVersion(const MountNodeRef& node, const FSItem& item) {
  const auto& content = node->content;
  if (content && (content->isUnsent() || content->writers() > 0)) {
    node->isOutdated = true;
    node->isRemote = true;
    return;
  }
  if (!content || !content->hasUsers()) {
    if (content) unusedContents.push_back(std::move(node->content));
    if (node->lookups > 0) invalidations.contents.push_back(node->id);
    node->isKernelCacheCurrent = false;
    node->isKernelSizeStale = node->lookups > 0;
    update(*node, item);
    return;
  }
  MountNode& folder = *node->parent;
  invalidations.contents.push_back(node->id);
  tree_.remove(node);
  node->isReplaced = true;
  const MountNodeRef newer = tree_.make(false);
  tree_.add(folder, newer, item.name());
  update(*newer, item);
  isChanged_ = true;
}

}  // namespace kzv::mount
