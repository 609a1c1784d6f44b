#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/Paths.h"
#include "sdk/DBError.h"

namespace {

/// ".." is read as the folder it stands in: the component before it stays, on purpose, since a panel asks
/// this way for the folder that it shows.
std::string withoutTrailingDotDot(const std::string& path) {
  return lastPathComponent(path) == ".." ? deletingLastPathComponent(path) : path;
}

bool isComplete(const DBMetadata& record) { return !record.isDirectory() || record.contents(); }

}  // namespace

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::metadata(const std::string& path,
                                                                   NSErrorRef* error) {
  return metadata(path, nullptr, error);
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::metadata(const std::string& path,
                                                                   const ProgressCallback& progress,
                                                                   NSErrorRef* error) {
  const std::string wanted = withoutTrailingDotDot(path);
  const std::string key = MetadataCache::keyOf(wanted);
  if (auto record = cachedRecord(key)) return record;
  // What can be stopped must not queue up behind what cannot.
  if (progress) {
    return fetchRecord(
        wanted, key, [&](auto request) { return requestOnFreshClient(progress, std::move(request), error); });
  }
  return synced(*mainClient, [&]() -> MetadataRef {
    if (auto record = cachedRecord(key)) return record;  // another caller fetched it while this one queued up
    return fetchRecord(wanted, key,
                       [&](auto request) { return requestOnMainClient(std::move(request), error); });
  });
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::cachedRecord(const std::string& key) const {
  return synced(*metaCache, [&]() -> MetadataRef {
    auto record = metaCache->find(key);
    return record && isComplete(*record) ? record : nullptr;
  });
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::fetchRecord(const std::string& path,
                                                                      const std::string& key,
                                                                      const Carry& carry) {
  const auto fetch = synced(*metaCache, [&] { return metaCache->beginFetch(key); });
  const auto known = knownRecord(key);  // a parent's listing tells where there is no folder
  const bool isFolder = known && *known && (*known)->isDirectory();
  DBKnownItem knownItem{knownFolderPath(key), isFolder ? *known : nullptr, known && !isFolder};
  const id result = carry([path, knownItem = std::move(knownItem)](DBRestClient& client) {
    client.loadMetadata(path, knownItem);
  });
  MetadataRef record = as<DBMetadata>(result);
  synced(*metaCache, [&] {
    const bool isCurrent = metaCache->endFetch(fetch);
    if (record && isCurrent) metaCache->store(MetadataCache::keyOf(*record), record);
  });
  return record;
}

std::optional<std::string> KZVDropboxFileManager::knownFolderPath(const std::string& key) const {
  const std::string folderKey = deletingLastPathComponent(key);
  if (folderKey == "/") return folderKey;
  const MetadataRef folder = knownRecord(folderKey).value_or(nullptr);
  return folder ? std::optional(folder->path()) : std::nullopt;
}

void KZVDropboxFileManager::metadataUnchangedAtPath(DBRestClient& client, const std::string& path) {
  MetadataRef cached = synced(*metaCache, [&] { return metaCache->find(MetadataCache::keyOf(path)); });
  finish(client, std::const_pointer_cast<DBMetadata>(cached),
         cached ? nullptr : std::make_shared<NSError>(std::string(DBErrorDomain), DBErrorInvalidResponse));
}
