#include "filemanager/MetadataCache.h"

#include <algorithm>
#include <utility>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"

namespace {

struct Place {
  std::string_view folder;  // key of the folder
  std::string_view name;
};

/// Where a key other than the root's lies.
Place placeOf(std::string_view key) {
  const std::size_t slash = key.rfind('/');
  return {slash == 0 ? key.substr(0, 1) : key.substr(0, slash), key.substr(slash + 1)};
}

bool isBelow(std::string_view key, std::string_view folder) {
  if (folder == "/") return key != "/";
  return key.size() > folder.size() && key.starts_with(folder) && key[folder.size()] == '/';
}

std::string keyIn(std::string_view folder, std::string_view name) {
  std::string key(folder);
  if (!key.ends_with('/')) key += '/';
  return key.append(name);
}

/// Whether `key` or a folder above it is among `folders`.
bool isWithin(std::string_view key, const std::set<std::string, std::less<>>& folders) {
  while (!folders.empty() && !folders.contains(key)) {
    if (key.size() <= 1) return false;
    key = placeOf(key).folder;
  }
  return !folders.empty();
}

bool isFile(const MetadataCache::Record& record) { return !record->isDirectory() && !record->isDeleted(); }

}  // namespace

std::string MetadataCache::keyOf(std::string_view path) {
  std::string key = caselessKey(path);
  if (!key.starts_with('/') || key.ends_with('/') || key.find("//") != std::string::npos) {
    key = appendingPathComponent("/", key);
    if (key.size() > 1 && key.ends_with('/')) key.pop_back();
  }
  return key;
}

std::string MetadataCache::keyOf(const DBMetadata& record) {
  std::string key(record.lowercasePath());
  return key.empty() ? "/" : key;
}

bool MetadataCache::startKeeping() { return !std::exchange(keeps_, true) && lastFetch_ > 0; }

MetadataCache::Record MetadataCache::find(std::string_view key) const {
  if (key == "/") return root_;
  const auto [folderKey, name] = placeOf(key);
  const auto folder = folders_.find(folderKey);
  if (folder == folders_.end()) return nullptr;
  const auto found = folder->second.children.find(name);
  return found == folder->second.children.end() ? nullptr : found->second;
}

void MetadataCache::store(std::string_view key, Record record) {
  if (!keeps_) return;
  if (key == "/") {
    if (!root_) ++count_;
    root_ = std::move(record);
    return;
  }
  const auto [folderKey, name] = placeOf(key);
  auto folder = folders_.find(folderKey);
  if (folder == folders_.end()) folder = folders_.try_emplace(std::string(folderKey)).first;
  folder->second.entered.reset();
  const auto [child, isNew] = folder->second.children.insert_or_assign(std::string(name), std::move(record));
  if (isNew) ++count_;
}

bool MetadataCache::isEntered(std::string_view key, const Record& folder) const {
  const auto found = folders_.find(key);
  return found != folders_.end() && found->second.entered.lock() == folder && find(key) == folder;
}

void MetadataCache::noteEntered(std::string_view key, const Record& folder) {
  const auto found = folders_.find(key);
  if (found != folders_.end() && find(key) == folder) found->second.entered = folder;
}

void MetadataCache::dropOne(std::string_view key, std::vector<std::string>& droppedFiles) {
  if (key == "/") {
    if (std::exchange(root_, nullptr)) --count_;
    return;
  }
  const auto [folderKey, name] = placeOf(key);
  const auto folder = folders_.find(folderKey);
  if (folder == folders_.end()) return;
  Children& children = folder->second.children;
  const auto found = children.find(name);
  if (found == children.end()) return;
  if (isFile(found->second)) droppedFiles.emplace_back(key);
  children.erase(found);
  folder->second.entered.reset();
  --count_;
  if (children.empty()) folders_.erase(folder);
}

MetadataCache::Folders::iterator MetadataCache::dropFolder(Folders::iterator folder,
                                                           std::vector<std::string>& droppedFiles) {
  for (const auto& [name, record] : folder->second.children) {
    if (isFile(record)) droppedFiles.push_back(keyIn(folder->first, name));
  }
  count_ -= folder->second.children.size();
  return folders_.erase(folder);
}

void MetadataCache::remove(std::string_view key) {
  for (ActiveFetch& fetch : fetches_) {
    if (fetch.isTree && (fetch.key == key || isBelow(key, fetch.key)))
      fetch.removed.emplace(key);
    else
      fetch.isStale |= fetch.key == key;
  }
  std::vector<std::string> dropped;
  dropOne(key, dropped);
}

std::vector<std::string> MetadataCache::removeSubtree(std::string_view key) {
  if (key == "/") return removeAll();
  for (ActiveFetch& fetch : fetches_) {
    fetch.isStale |= fetch.key == key || isBelow(fetch.key, key);
    if (fetch.isTree && isBelow(key, fetch.key)) fetch.removedSubtrees.emplace(key);
  }
  std::vector<std::string> droppedFiles;
  dropOne(key, droppedFiles);
  if (const auto folder = folders_.find(key); folder != folders_.end()) dropFolder(folder, droppedFiles);
  const std::string first = std::string(key) + '/';
  auto folder = folders_.lower_bound(first);
  while (folder != folders_.end() && folder->first.starts_with(first))
    folder = dropFolder(folder, droppedFiles);
  return droppedFiles;
}

std::vector<std::string> MetadataCache::removeAll() {
  for (ActiveFetch& fetch : fetches_) fetch.isStale = true;
  std::vector<std::string> droppedFiles;
  for (auto folder = folders_.begin(); folder != folders_.end();) folder = dropFolder(folder, droppedFiles);
  root_ = nullptr;
  count_ = 0;
  return droppedFiles;
}

MetadataCache::Fetch MetadataCache::beginFetch(std::string_view key, bool isTree) {
  fetches_.push_back({++lastFetch_, std::string(key), isTree, !keeps_});
  return lastFetch_;
}

bool MetadataCache::endFetch(Fetch fetch) {
  const auto found = std::find_if(fetches_.begin(), fetches_.end(),
                                  [&](const ActiveFetch& active) { return active.number == fetch; });
  if (found == fetches_.end()) return false;
  const bool isCurrent = !found->isStale;
  fetches_.erase(found);
  return isCurrent;
}

void MetadataCache::endTreeFetch(Fetch fetch, const std::vector<Record>& folders) {
  const auto found = std::find_if(fetches_.begin(), fetches_.end(),
                                  [&](const ActiveFetch& active) { return active.number == fetch; });
  if (found == fetches_.end()) return;
  const ActiveFetch ended = std::move(*found);
  fetches_.erase(found);
  if (ended.isStale) return;
  for (const Record& folder : folders) {
    const std::string key = keyOf(*folder);
    if (!ended.removed.contains(key) && !isWithin(key, ended.removedSubtrees)) store(key, folder);
  }
}

bool MetadataCache::holdsTree(std::string_view key) const {
  std::vector<std::string> keys{std::string(key)};
  while (!keys.empty()) {
    const Record folder = find(keys.back());
    keys.pop_back();
    if (!folder || !folder->contents()) return false;
    for (const Record& child : *folder->contents()) {
      if (child->isDirectory() && !child->isDeleted()) keys.push_back(keyOf(*child));
    }
  }
  return true;
}
