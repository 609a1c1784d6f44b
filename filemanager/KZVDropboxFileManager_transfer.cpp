#include "core/synced.h"
#include "filemanager/KZVDropboxFileManager.h"
#include "filemanager/RequestKeys.h"
#include "foundation/NSString.h"
#include "support/AssociatedObjects.h"

namespace {

/// Takes the record that comes with a download from the service thread to the caller, who waits.
class ReceivedRecord final : public NSObject {
 public:
  KZVDropboxFileManager::MetadataRef record;
};

}  // namespace

std::shared_ptr<NSURL> KZVDropboxFileManager::loadFile(const DBMetadata& file, std::shared_ptr<NSURL> local,
                                                       LocalAccess access, ProgressCallback progress,
                                                       NSErrorRef* error, MetadataRef* received) {
  const MetadataRef record = download(file.path(), *local, access, std::move(progress), error);
  if (!record) return nullptr;
  noteDownloaded(file, record);
  if (received) *received = record;
  return local;
}

std::shared_ptr<NSURL> KZVDropboxFileManager::loadRevision(const std::string& rev,
                                                           std::shared_ptr<NSURL> local, LocalAccess access,
                                                           ProgressCallback progress, NSErrorRef* error,
                                                           MetadataRef* received) {
  const MetadataRef record = download("rev:" + rev, *local, access, std::move(progress), error);
  if (!record) return nullptr;
  if (received) *received = record;
  return local;
}

KZVDropboxFileManager::MetadataRef KZVDropboxFileManager::download(const std::string& path,
                                                                   const NSURL& local, LocalAccess access,
                                                                   ProgressCallback progress,
                                                                   NSErrorRef* error) {
  const auto received = std::make_shared<ReceivedRecord>();
  const id loaded = requestOnFreshClient(
      std::move(progress),
      [path, localPath = local.path(), access, received](DBRestClient& client) {
        setObj(client, received, KZVDFMDownloadKey());
        client.loadFile(path, localPath, access);
      },
      error);
  return textOf(loaded) ? received->record : nullptr;
}

/// What came instead of the version asked for is newer than what is cached, unless a change has been told
/// meanwhile: then the cache may be ahead of it.
void KZVDropboxFileManager::noteDownloaded(const DBMetadata& asked, const MetadataRef& received) {
  if (received->rev() == asked.rev()) return;
  const std::string key = MetadataCache::keyOf(asked.path());
  if (knownRevision(asked.path()) == asked.rev()) noteUploaded(key, received);
}

bool KZVDropboxFileManager::loadThumb(const std::string& path, const std::string& localPath,
                                      NSErrorRef* error) {
  const id loaded = requestOnFreshClient(
      nullptr, [path, localPath](DBRestClient& client) { client.loadThumbnail(path, "xl", localPath); },
      error);
  return textOf(loaded) != nullptr;
}

void KZVDropboxFileManager::loadedFile(DBRestClient& client, const std::string& localPath,
                                       const MetadataRef& metadata) {
  if (const auto received = as<ReceivedRecord>(objForKey(client, KZVDFMDownloadKey())))
    received->record = metadata;
  finish(client, str(localPath), nullptr);
}

void KZVDropboxFileManager::loadProgress(DBRestClient& client, double fraction,
                                         const std::string& /*localPath*/) {
  reportProgress(client, fraction);
}
