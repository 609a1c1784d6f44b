#include <cerrno>

#include "core/KZVCoreObj.h"
#include "core/KZVLocalFS.h"
#include "core/KZVSupport.h"
#include "core/StoppableCall.h"
#include "foundation/NSFileManager.h"
#include "foundation/Paths.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"

namespace {

/// A path of the service is data: none of its components may lead out of the folder it is put into.
bool staysBelow(const std::string& path) {
  if (!path.starts_with('/') || path.find('\0') != std::string::npos) return false;
  for (std::size_t start = 1; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view component = std::string_view(path).substr(start, end - start);
    if (component.empty() || component == "." || component == "..") return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

// The message stands in the domain, on purpose: hosts show the domain of an error that carries no details.
NSErrorRef KZVDropboxFS::temporaryFileError() {
  return std::make_shared<NSError>("Could not create temporary file", -1);
}

std::shared_ptr<NSURL> KZVDropboxFS::requestFileUrl(const std::string& path, ProgressCallback progress,
                                                    NSErrorRef* error) {
  const std::string key = MetadataCache::keyOf(path);
  dropOldCopy(path, key);
  if (auto held = cache().urlForKey(key)) return held;
  // Two copies of one item would remove each other's file.
  const KeyedGate::Pass pass(copiesBeingMade_, key, [&] { return !progress || progress({0, 1000}); });
  if (!pass.isHeld()) {
    setError(error, stoppedByUser());
    return nullptr;
  }
  if (auto held = cache().urlForKey(key)) return held;
  NSErrorRef reason;
  auto copy = makeLocalCopy(path, key, std::move(progress), ServiceErrors(&reason));
  if (copy) return copy;
  cache().invalidate(key);
  if (!reason) reason = temporaryFileError();
  setError(error, std::move(reason));
  return nullptr;
}

/// A copy of a version that is known to be replaced must not be given out, though the report of the change,
/// which drops it, is still on its way.
void KZVDropboxFS::dropOldCopy(const std::string& path, const std::string& key) {
  const auto copied = copiedRevisions_.update([&](auto& revisions) {
    const auto found = revisions.find(key);
    return found == revisions.end() ? std::string() : found->second;
  });
  if (copied.empty()) return;
  const auto known = requiredManager().knownRevision(path);
  if (!known || *known == copied) return;
  cache().invalidate(key);
  copiedRevisions_.update([&](auto& revisions) { revisions.erase(key); });
}

std::shared_ptr<NSURL> KZVDropboxFS::makeLocalCopy(const std::string& path, const std::string& key,
                                                   ProgressCallback progress, NSErrorRef* error) {
  auto record = requiredManager().metadata(path, progress, error);
  if (!record || record->isDeleted()) return nullptr;
  const std::string folder = requiredTemporaryFolder(error);
  if (folder.empty()) return nullptr;
  auto copy = record->isDirectory() ? copyFolder(path, folder, progress, error)
                                    : copyFile(record, path, folder, std::move(progress), error);
  if (!copy) return nullptr;
  copiedRevisions_.update([&](auto& revisions) { revisions[key] = record->rev(); });
  cache().setUrl(copy, key);
  // What changed while it was fetched was told before there was a copy to drop.
  if (!record->isDirectory() && requiredManager().knownRevision(path) != record->rev())
    cache().invalidate(key);
  return copy;
}

/// @param record  what is known of the file; becomes the record of the version that came.
std::shared_ptr<NSURL> KZVDropboxFS::copyFile(KZVDropboxFileManager::MetadataRef& record,
                                              const std::string& path, const std::string& folder,
                                              ProgressCallback progress, NSErrorRef* error) {
  if (!staysBelow(path)) {
    setError(error, NSError::posix(EINVAL, path));
    return nullptr;
  }
  auto local = NSURL::fileURLWithPath(appendingPathComponent(folder, path));
  NSFileManager& files = NSFileManager::defaultManager();
  files.createDirectoryAtPath(deletingLastPathComponent(local->path()), true, error);
  files.removeItemAtURL(*local);
  if (record->totalBytes() > 0) {
    KZVDropboxFileManager::MetadataRef received = record;
    auto copy = requiredManager().loadFile(*record, std::move(local), LocalAccess::ownerOnly,
                                           std::move(progress), error, &received);
    record = std::move(received);
    return copy;
  }
  // An empty file needs no download.
  return ::writeFileAtomically(local->path(), "", 0600, error) ? local : nullptr;
}

std::shared_ptr<NSURL> KZVDropboxFS::copyFolder(const std::string& path, const std::string& folder,
                                                const ProgressCallback& progress, NSErrorRef* error) {
  const std::string localFolder = appendingPathComponent(folder, KZVSupport::uniquePathComponent());
  const std::string destination = appendingPathComponent(localFolder, lastPathComponent(path));
  const auto batch = std::make_shared<KZVBatchId>();
  auto item = std::make_shared<FSItem>(path, shared_from_this());
  item->setIsDirectory(true);
  if (KZVLocalFS::shared().writeFiles(*batch, {std::move(item)}, destination, nullptr, progress, nullptr,
                                      error)) {
    return NSURL::fileURLWithPath(destination);
  }
  NSFileManager::defaultManager().removeItemAtPath(localFolder);
  return nullptr;
}

/// The instance's folder, asked for when it is first needed; empty with the error when the host has none to
/// give.
std::string KZVDropboxFS::requiredTemporaryFolder(NSErrorRef* error) {
  return tmpFolderUrl_.update([&](std::shared_ptr<NSURL>& folder) -> std::string {
    if (!folder) folder = KZVCoreObj::shared().temporaryFolderForPlugin(*this, error);
    return folder ? folder->path() : "";
  });
}

void KZVDropboxFS::releaseFileUrl(const NSURL& url) {
  if (cache().keyForUrl(url)) {
    cache().releaseUrl(url);
  } else {
    NSFileManager::defaultManager().removeItemAtURL(url);
  }
}

// The destination is dropped as it was given and not in lower case, on purpose: see KZVDropboxFS_tree.cpp.
bool KZVDropboxFS::writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                             NSErrorRef* error) {
  cache().invalidate(path);
  return requiredManager().uploadFile(source, path, {}, std::move(progress),
                                      ServiceErrors(error, ServiceErrors::Operation::upload)) != nullptr;
}

std::optional<StoredFile> KZVDropboxFS::storeFile(const NSURL& source, const std::string& path,
                                                  const WriteBase& base, ProgressCallback progress,
                                                  NSErrorRef* error) {
  cache().invalidate(path);
  const auto record = requiredManager().uploadFile(source, path, base, std::move(progress),
                                                   ServiceErrors(error, ServiceErrors::Operation::upload));
  if (!record) return std::nullopt;
  return StoredFile{record->path(), record->rev()};
}

std::optional<std::string> KZVDropboxFS::revisionAtPath(const std::string& path) {
  return requiredManager().knownRevision(path);
}
