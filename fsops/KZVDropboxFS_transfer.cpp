#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

#include "core/KZVCoreObj.h"
#include "core/KZVSupport.h"
#include "core/LocalCopy.h"
#include "core/StoppableCall.h"
#include "core/copy/KZVLocalFS.h"
#include "core/copy/LocalTarget.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"
#include "support/AssociatedObjects.h"

namespace {

/// Whether a path from the service stays below the folder that it is appended to. It is untrusted.
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

/// Creates a folder for one copy; empty with an error when that fails.
std::string folderForCopy(const std::string& folder, NSErrorRef* error) {
  std::string made = appendingPathComponent(folder, KZVSupport::uniquePathComponent());
  return kzv::copy::makePrivateFolders(made, error) ? made : std::string();
}

/// Prepares `path` for a new file: creates its folder and removes an older copy. False when no file can be
/// created there: a folder with other copies is in the way, or the disk does not support the name.
bool preparePath(const std::string& path) {
  if (!kzv::copy::makePrivateFolders(deletingLastPathComponent(path), nullptr)) return false;
  return ::unlink(path.c_str()) == 0 || errno == ENOENT || (errno == EISDIR && ::rmdir(path.c_str()) == 0);
}

/// The local path for the copy of a file: below `folder`, with the path that it has in the account. If that
/// is not possible (copies from a time when the path had another kind are in the way, or the disk does not
/// support the name), in a folder of its own. Empty with an error when the disk fails.
std::string localPathForCopy(const std::string& folder, const std::string& path, NSErrorRef* error) {
  std::string usual = appendingPathComponent(folder, path);
  if (preparePath(usual)) return usual;
  const std::string own = folderForCopy(folder, error);
  return own.empty() ? own
                     : appendingPathComponent(own, kzv::copy::fittingName(lastPathComponent(path), own));
}

/// The key under which a copy's revision is attached to its URL.
const NSObject& revisionOfCopy() {
  static const id key = str("revision of the copy");
  return *key;
}

}  // namespace

// The message is the domain, on purpose: hosts show the domain of an error without details.
NSErrorRef KZVDropboxFS::temporaryFileError() {
  return std::make_shared<NSError>("Could not create temporary file", -1);
}

std::shared_ptr<NSURL> KZVDropboxFS::requestFileUrl(const std::string& path, ProgressCallback progress,
                                                    NSErrorRef* error) {
  const std::string key = MetadataCache::keyOf(path);
  return cachedOrNewCopy(
      key, progress, error, [&] { return cachedCopy(path, key); },
      [&]() -> std::shared_ptr<NSURL> {
        NSErrorRef reason;
        if (auto copy = makeLocalCopy(path, key, progress, ServiceErrors(&reason))) return copy;
        cache().invalidate(key);
        if (!reason) reason = temporaryFileError();
        setError(error, std::move(reason));
        return nullptr;
      });
}

/// The copy that `findCached` returns, else one from `make`, which only one thread per key runs: two would
/// remove each other's file.
std::shared_ptr<NSURL> KZVDropboxFS::cachedOrNewCopy(const std::string& key, const ProgressCallback& progress,
                                                     NSErrorRef* error, const MakeCopy& findCached,
                                                     const MakeCopy& make) {
  if (auto copy = findCached()) return copy;
  const KeyedGate::Pass pass(copiesBeingMade_, key, [&] { return !progress || progress({0, 1000}); });
  if (!pass.isHeld()) {
    setError(error, stoppedByUser());
    return nullptr;
  }
  if (auto copy = findCached()) return copy;
  return make();
}

/// The cached copy for `path`, with one more user. Null for a version that is known to be outdated, even if
/// the change notice that drops it has not arrived yet.
std::shared_ptr<NSURL> KZVDropboxFS::cachedCopy(const std::string& path, const std::string& key) {
  auto copy = cache().urlForKey(key);
  if (!copy) return nullptr;
  const id revision = objForKey(*copy, revisionOfCopy());
  const std::string* copied = textOf(revision);
  const auto known = requiredManager().knownRevision(path);
  if (!copied || !known || *known == *copied) return copy;
  cache().releaseUrl(*copy);
  cache().invalidate(key);
  return nullptr;
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
  if (!record->rev().empty()) setObj(*copy, str(record->rev()), revisionOfCopy());
  cache().setUrl(copy, key);
  // A change notice during the download found no copy to drop.
  if (!record->isDirectory() && requiredManager().knownRevision(path) != record->rev())
    cache().invalidate(key);
  return copy;
}

/// @param record  the cached record of the file; becomes that of the downloaded version.
std::shared_ptr<NSURL> KZVDropboxFS::copyFile(KZVDropboxFileManager::MetadataRef& record,
                                              const std::string& path, const std::string& folder,
                                              ProgressCallback progress, NSErrorRef* error) {
  if (!staysBelow(path)) {
    setError(error, NSError::posix(EINVAL, path));
    return nullptr;
  }
  const std::string place = localPathForCopy(folder, path, error);
  auto local = place.empty() ? nullptr : NSURL::fileURLWithPath(place);
  if (!local) return nullptr;
  if (record->totalBytes() > 0) {
    KZVDropboxFileManager::MetadataRef received = record;
    auto copy = requiredManager().loadFile(*record, std::move(local), LocalAccess::ownerOnly,
                                           std::move(progress), error, &received);
    record = std::move(received);
    return copy;
  }
  // An empty file needs no download.
  const LocalCopyOptions options{record->lastModifiedDate(), LocalAccess::ownerOnly};
  return makeEmptyFile(place, options, error) ? local : nullptr;
}

std::shared_ptr<NSURL> KZVDropboxFS::copyFolder(const std::string& path, const std::string& folder,
                                                const ProgressCallback& progress, NSErrorRef* error) {
  const std::string localFolder = folderForCopy(folder, error);
  if (localFolder.empty()) return nullptr;
  const std::string destination =
      appendingPathComponent(localFolder, kzv::copy::fittingName(lastPathComponent(path), localFolder));
  const auto batch = std::make_shared<KZVBatchId>();
  auto item = std::make_shared<FSItem>(path, shared_from_this());
  item->setIsDirectory(true);
  if (KZVLocalFS::shared().writeFiles(*batch, {std::move(item)}, destination, nullptr, progress, nullptr,
                                      error, LocalAccess::ownerOnly)) {
    return NSURL::fileURLWithPath(destination);
  }
  NSFileManager::defaultManager().removeItemAtPath(localFolder);
  return nullptr;
}

/// Downloads straight to `target`; uses no local copy, which would be a second file.
bool KZVDropboxFS::fetchFile(const FSItem& item, const NSURL& target, LocalAccess access,
                             ProgressCallback progress, NSErrorRef* error) {
  const auto record = requiredManager().metadata(item.path(), progress, ServiceErrors(error));
  if (!record || record->isDeleted()) return false;
  if (record->isDirectory()) {
    setError(error, NSError::posix(EISDIR, item.path()));
    return false;
  }
  if (record->totalBytes() == 0)
    return makeEmptyFile(target.path(), {record->lastModifiedDate(), access, true}, error);
  auto local = NSURL::fileURLWithPath(target.path());
  return requiredManager().loadFile(*record, std::move(local), access, std::move(progress),
                                    ServiceErrors(error)) != nullptr;
}

/// The instance's temporary folder, obtained at first use and created again if a clean-up has removed it;
/// empty with an error when the host has none or the disk fails.
std::string KZVDropboxFS::requiredTemporaryFolder(NSErrorRef* error) {
  return tmpFolderUrl_.update([&](std::shared_ptr<NSURL>& folder) -> std::string {
    if (!folder) folder = KZVCoreObj::shared().temporaryFolderForPlugin(*this, error);
    return folder && kzv::copy::makePrivateFolders(folder->path(), error) ? folder->path() : "";
  });
}

void KZVDropboxFS::releaseFileUrl(const NSURL& url) {
  if (cache().keyForUrl(url)) {
    cache().releaseUrl(url);
  } else {
    NSFileManager::defaultManager().removeItemAtURL(url);
  }
}

// Invalidates the path as given and not in lower case, on purpose: see KZVDropboxFS_tree.cpp.
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
  return StoredFile{record->path(), record->rev(), record->totalBytes()};
}

std::optional<std::string> KZVDropboxFS::revisionAtPath(const std::string& path) {
  return requiredManager().knownRevision(path);
}
