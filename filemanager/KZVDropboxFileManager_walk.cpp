// Whole trees in one stream of pages, for callers that are about to list them folder by folder.
#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <utility>

#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "sdk/DBError.h"

namespace {

/// A stream's pages come one after another: from here on, several streams are faster.
constexpr std::size_t maxEntriesOfOneStream = 100'000;
constexpr std::size_t maxStreams = 4;

std::vector<KZVDropboxFileManager::MetadataRef> foldersIn(const DBMetadata& folder) {
  std::vector<KZVDropboxFileManager::MetadataRef> folders;
  for (const auto& child : *folder.contents()) {
    if (child->isDirectory() && !child->isDeleted()) folders.push_back(child);
  }
  return folders;
}

}  // namespace

bool KZVDropboxFileManager::loadTree(const std::string& path, std::size_t maxEntries) {
  if (!waitForFirstCursor()) return true;
  if (synced(*metaCache, [&] { return metaCache->holdsTree(MetadataCache::keyOf(path)); })) return true;
  MetadataRef folder;  // null: the root, about which nothing needs to be known
  if (MetadataCache::keyOf(path) != "/") {
    folder = metadata(path);
    if (!folder || !folder->contents()) return true;
    const auto children = foldersIn(*folder);
    if (children.size() <= maxStreams) return streamTrees(children, maxEntries);  // the rest is known by now
  }
  const Streamed streamed = streamTree(folder, std::min(maxEntries, maxEntriesOfOneStream));
  if (streamed != Streamed::tooLarge) return true;
  if (maxEntries <= maxEntriesOfOneStream) return false;
  if (!folder) folder = metadata(path);
  return !folder || !folder->contents() || streamTrees(foldersIn(*folder), maxEntries);
}

KZVDropboxFileManager::Streamed KZVDropboxFileManager::streamTree(const MetadataRef& folder,
                                                                  std::size_t maxEntries) {
  const std::string key = folder ? MetadataCache::keyOf(*folder) : "/";
  const auto fetch = synced(*metaCache, [&] { return metaCache->beginTreeFetch(key); });
  NSErrorRef error;
  const auto tree = as<DBTree>(requestOnFreshClient(
      nullptr, [&](DBRestClient& client) { client.loadTree(folder, maxEntries); }, &error));
  synced(*metaCache, [&] { metaCache->endTreeFetch(fetch, tree ? tree->folders() : DBTree::Folders()); });
  if (tree) return Streamed::whole;
  const bool isTooLarge = error && error->domain() == DBErrorDomain && error->code() == DBErrorTreeTooLarge;
  return isTooLarge ? Streamed::tooLarge : Streamed::failed;
}

bool KZVDropboxFileManager::streamTrees(const std::vector<MetadataRef>& folders, std::size_t maxEntries) {
  std::atomic<std::size_t> next{0};
  std::atomic<bool> isTooLarge{false};
  const auto streamSome = [&] {
    for (std::size_t i = next++; i < folders.size() && !isTooLarge; i = next++) {
      if (streamTree(folders[i], maxEntries) == Streamed::tooLarge) isTooLarge = true;
    }
  };
  std::vector<std::thread> helpers;
  try {
    while (helpers.size() + 1 < std::min(folders.size(), maxStreams)) helpers.emplace_back(streamSome);
  } catch (const std::system_error&) {
    // With fewer threads it takes longer.
  }
  streamSome();
  for (std::thread& helper : helpers) helper.join();
  return !isTooLarge;
}
