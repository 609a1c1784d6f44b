// Calls that change the tree, and the public link. What they change leaves the cache at once, so that the
// next listing shows it without waiting for the change feed.
#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"

bool KZVDropboxFileManager::deletePath(const std::string& path, NSErrorRef* error) {
  clearLastDeltaDate();
  const id deleted = requestOnMainClient([path](DBRestClient& client) { client.deletePath(path); }, error);
  if (!textOf(deleted)) return false;
  forget(path);
  return true;
}

bool KZVDropboxFileManager::moveFrom(const std::string& path, const std::string& toPath, NSErrorRef* error) {
  clearLastDeltaDate();
  const id moved =
      requestOnMainClient([path, toPath](DBRestClient& client) { client.moveFrom(path, toPath); }, error);
  const MetadataRef record = as<DBMetadata>(moved);
  if (!record) return false;
  forget(path);
  Changes replaced;
  synced(*metaCache, [&] {
    const std::string key = MetadataCache::keyOf(*record);
    if (const MetadataRef older = metaCache->find(key)) {
      (older->isDirectory() ? replaced.folders : replaced.files).insert(key);
    }
    const auto files = metaCache->removeSubtree(key);
    replaced.files.insert(files.begin(), files.end());
    replaced.files.insert(key);
    metaCache->remove(deletingLastPathComponent(key));
    metaCache->store(key, record);
  });
  reportOwnChanges(std::move(replaced));
  return true;
}

bool KZVDropboxFileManager::createFolder(const std::string& path, NSErrorRef* error) {
  clearLastDeltaDate();
  const id created = requestOnMainClient([path](DBRestClient& client) { client.createFolder(path); }, error);
  const MetadataRef record = as<DBMetadata>(created);
  if (!record) return false;
  forget(path);
  synced(*metaCache, [&] { metaCache->store(MetadataCache::keyOf(*record), record); });
  return true;
}

std::optional<std::string> KZVDropboxFileManager::publicLink(const std::string& path, NSErrorRef* error) {
  const auto link = sharedLink(path, error);
  return link ? std::optional(link->url()) : std::nullopt;
}

std::shared_ptr<DBSharedLink> KZVDropboxFileManager::sharedLink(const std::string& path, NSErrorRef* error) {
  constexpr bool shortUrl = false;
  return as<DBSharedLink>(requestOnMainClient(
      [path](DBRestClient& client) { client.loadSharableLinkForFile(path, shortUrl); }, error));
}

std::optional<std::string> KZVDropboxFileManager::existingLink(const std::string& path, NSErrorRef* error) {
  const id link =
      requestOnMainClient([path](DBRestClient& client) { client.findSharableLinkForFile(path); }, error);
  const std::string* text = textOf(link);
  return text && !text->empty() ? std::optional(*text) : std::nullopt;
}

// Parents that the service made on the way (it makes what is missing) appear in listings above: the nearest
// listing that is cached no longer holds either.
void KZVDropboxFileManager::forget(const std::string& path) {
  const std::string key = MetadataCache::keyOf(path);
  Changes dropped;
  synced(*metaCache, [&] {
    const auto files = metaCache->removeSubtree(key);
    dropped.files.insert(files.begin(), files.end());
    dropped.files.insert(key);
    for (std::string parent = key; parent != "/";) {
      parent = deletingLastPathComponent(parent);
      const bool wasKnown = metaCache->find(parent) != nullptr;
      metaCache->remove(parent);
      if (wasKnown) break;
    }
  });
  reportOwnChanges(std::move(dropped));
}
