#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/NSString.h"

std::shared_ptr<NSURL> KZVDropboxFileManager::loadFile(const DBMetadata& file, std::shared_ptr<NSURL> local,
                                                       ProgressCallback progress, NSErrorRef* error) {
  const id loaded = requestOnFreshClient(
      std::move(progress),
      [path = file.path(), localPath = local->path()](DBRestClient& client) {
        client.loadFile(path, localPath);
      },
      error);
  return textOf(loaded) ? std::move(local) : nullptr;
}

bool KZVDropboxFileManager::loadThumb(const std::string& path, const std::string& localPath,
                                      NSErrorRef* error) {
  const id loaded = requestOnFreshClient(
      nullptr, [path, localPath](DBRestClient& client) { client.loadThumbnail(path, "xl", localPath); },
      error);
  return textOf(loaded) != nullptr;
}

void KZVDropboxFileManager::loadedFile(DBRestClient& client, const std::string& localPath) {
  finish(client, str(localPath), nullptr);
}

void KZVDropboxFileManager::loadFileFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  finish(client, nullptr, error);
}

void KZVDropboxFileManager::loadProgress(DBRestClient& client, double fraction,
                                         const std::string& /*localPath*/) {
  reportProgress(client, fraction);
}

void KZVDropboxFileManager::loadedThumbnail(DBRestClient& client, const std::string& localPath,
                                            const MetadataRef& /*metadata*/) {
  finish(client, str(localPath), nullptr);
}

void KZVDropboxFileManager::loadThumbnailFailedWithError(DBRestClient& client, const NSErrorRef& error) {
  finish(client, nullptr, error);
}
