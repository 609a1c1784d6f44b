#include "core/StoppableCall.h"
#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/Paths.h"
#include "sdk/DBError.h"

using namespace std::chrono_literals;

namespace {

/// ".." is read as the folder it stands in: the component before it stays, on purpose, since a panel asks
/// this way for the folder that it shows.
std::string withoutTrailingDotDot(const std::string& path) {
  return lastPathComponent(path) == ".." ? deletingLastPathComponent(path) : path;
}

bool isComplete(const DBMetadata& record) { return !record.isDirectory() || record.contents(); }

/// How long a first fetch lets the first cursor go ahead of it. One round trip as a rule.
constexpr auto firstCursorPatience = 2s;

}  // namespace

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::metadata(const std::string& path,
                                                                   NSErrorRef* error) {
  const std::string wanted = withoutTrailingDotDot(path);
  const std::string key = MetadataCache::keyOf(wanted);
  awaitFirstCursor();
  if (auto record = cachedRecord(key)) return record;
  return fetchRecord(wanted, key, error);
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::metadata(const std::string& path,
                                                                   const ProgressCallback& progress,
                                                                   NSErrorRef* error) {
  if (!progress) return metadata(path, error);
  if (!isFirstRunUnderWay_) {
    if (auto record = cachedRecord(MetadataCache::keyOf(withoutTrailingDotDot(path)))) return record;
  }
  auto answer = callUnlessStopped([&] { return progress({0, 1000}); },
                                  [self = shared_from_this(), path] {
                                    NSErrorRef reason;
                                    auto record = self->metadata(path, &reason);
                                    return std::pair(std::move(record), std::move(reason));
                                  });
  if (!answer) answer.emplace(nullptr, stoppedByUser());
  if (answer->second) setError(error, std::move(answer->second));
  return std::move(answer->first);
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::cachedRecord(const std::string& key) const {
  return synced(*metaCache, [&]() -> MetadataRef {
    auto record = metaCache->find(key);
    return record && isComplete(*record) ? record : nullptr;
  });
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::fetchRecord(const std::string& path,
                                                                      const std::string& key,
                                                                      NSErrorRef* error) {
  return synced(*mainClient, [&]() -> MetadataRef {
    if (auto record = cachedRecord(key)) return record;  // another caller fetched it while this one queued up
    const auto fetch = synced(*metaCache, [&] { return metaCache->beginFetch(key); });
    const auto known = knownRecord(key);  // a parent's listing tells where there is no folder
    const bool isNoFolder = known && !(*known && (*known)->isDirectory());
    const auto expected = isNoFolder ? DBRestClient::Expect::noFolder : DBRestClient::Expect::anything;
    const id result = requestOnMainClient(
        [path, expected](DBRestClient& client) { client.loadMetadata(path, expected); }, error);
    MetadataRef record = as<DBMetadata>(result);
    synced(*metaCache, [&] {
      const bool isCurrent = metaCache->endFetch(fetch);
      if (record && isCurrent) metaCache->store(MetadataCache::keyOf(*record), record);
    });
    return record;
  });
}

// The first cursor drops what was fetched before it, since a change between the two would never be told. A
// fetch that leaves after the cursor has come may be kept: so the very first one lets the cursor go ahead.
void KZVDropboxFileManager::awaitFirstCursor() {
  if (!isFirstRunUnderWay_) return;
  std::unique_lock lock(deltaStateMutex_);
  firstRunEnded_.wait_for(lock, firstCursorPatience, [&] { return !isFirstRunUnderWay_; });
}

void KZVDropboxFileManager::loadedMetadata(DBRestClient& client, const MetadataRef& metadata) {
  finish(client, std::const_pointer_cast<DBMetadata>(metadata), nullptr);
}

void KZVDropboxFileManager::metadataUnchangedAtPath(DBRestClient& client, const std::string& path) {
  MetadataRef cached = synced(*metaCache, [&] { return metaCache->find(MetadataCache::keyOf(path)); });
  finish(client, std::const_pointer_cast<DBMetadata>(cached),
         cached ? nullptr : std::make_shared<NSError>(std::string(DBErrorDomain), DBErrorInvalidResponse));
}

void KZVDropboxFileManager::loadMetadataFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  finish(client, nullptr, error);
}
