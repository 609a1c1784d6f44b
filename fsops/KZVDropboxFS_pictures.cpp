#include "core/KZVSupport.h"
#include "core/synced.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/ThumbnailCache.h"

std::shared_ptr<NSImage> KZVDropboxFS::icon(const std::string& path, NSErrorRef* error) {
  if (path == "/") return NSImage::imageNamed("dropboxcontextmenu");
  const auto record = requiredManager().metadata(path, ServiceErrors(error));
  return record ? NSImage::imageNamed(std::string(record->icon()) + "48") : nullptr;
}

std::shared_ptr<NSImage> KZVDropboxFS::preview(const std::string& path, NSErrorRef* error) {
  const std::string key = MetadataCache::keyOf(path);
  while (true) {
    cachedThumbs_->waitWhileFetching(key);
    const auto record = requiredManager().metadata(path, ServiceErrors(error));
    if (!record) {
      cachedThumbs_->remove(key);
      return nullptr;
    }
    if (record->isDirectory() || !record->thumbnailExists()) return nullptr;
    const auto claim = cachedThumbs_->claim(key);
    if (claim.url) return NSImage::initWithContentsOfURL(*claim.url, NSImage::Format::jpeg);
    if (claim.isMine) break;  // else another thread was faster: wait for it
  }
  const auto picture = fetchPreview(path, error);
  if (!picture) {
    cachedThumbs_->remove(key);
    return nullptr;
  }
  cachedThumbs_->store(key, picture);
  return NSImage::initWithContentsOfURL(*picture, NSImage::Format::jpeg);
}

std::shared_ptr<NSURL> KZVDropboxFS::fetchPreview(const std::string& path, NSErrorRef* error) {
  const std::string folder = requiredTemporaryFolder(error);
  if (folder.empty()) return nullptr;
  const std::string localPath = appendingPathComponent(folder, KZVSupport::uniquePathComponent());
  auto url = NSURL::fileURLWithPath(localPath);
  if (!url) {
    setError(error, temporaryFileError());
    return nullptr;
  }
  return requiredManager().loadThumb(path, localPath, ServiceErrors(error)) ? url : nullptr;
}
