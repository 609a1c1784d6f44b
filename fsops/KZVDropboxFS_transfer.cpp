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

/// A fresh folder for one copy; empty with the error when the disk refuses.
std::string folderForCopy(const std::string& folder, NSErrorRef* error) {
  std::string made = appendingPathComponent(folder, KZVSupport::uniquePathComponent());
  return kzv::copy::makePrivateFolders(made, error) ? made : std::string();
}

/// Frees `place`, which may hold the copy of an earlier version; false when it cannot be a file's: its folder
/// cannot be made, another copy's folder is there, or the disk cannot hold such a name.
bool isFreed(const std::string& place) {
  if (!kzv::copy::makePrivateFolders(deletingLastPathComponent(place), nullptr)) return false;
  return ::unlink(place.c_str()) == 0 || errno == ENOENT || (errno == EISDIR && ::rmdir(place.c_str()) == 0);
}

/// Where the copy of a file goes: below `folder` as it lies in the account. Where that cannot be, because the
/// path, or one above it, had another kind before and copies of that time may be held, or because the disk
/// holds no such names: in a folder of its own. Empty with the error when the disk refuses.
std::string placeForCopy(const std::string& folder, const std::string& path, NSErrorRef* error) {
  std::string usual = appendingPathComponent(folder, path);
  if (isFreed(usual)) return usual;
  const std::string own = folderForCopy(folder, error);
  return own.empty() ? own
                     : appendingPathComponent(own, kzv::copy::fittingName(lastPathComponent(path), own));
}

/// The key under which a copy's revision hangs on its URL.
const NSObject& revisionOfCopy() {
  static const id key = str("revision of the copy");
  return *key;
}

}  // namespace

// The message stands in the domain, on purpose: hosts show the domain of an error that carries no details.
NSErrorRef KZVDropboxFS::temporaryFileError() {
  return std::make_shared<NSError>("Could not create temporary file", -1);
}

std::shared_ptr<NSURL> KZVDropboxFS::requestFileUrl(const std::string& path, ProgressCallback progress,
                                                    NSErrorRef* error) {
  const std::string key = MetadataCache::keyOf(path);
  return heldOrMadeCopy(
      key, progress, error, [&] { return heldCopy(path, key); },
      [&]() -> std::shared_ptr<NSURL> {
        NSErrorRef reason;
        if (auto copy = makeLocalCopy(path, key, progress, ServiceErrors(&reason))) return copy;
        cache().invalidate(key);
        if (!reason) reason = temporaryFileError();
        setError(error, std::move(reason));
        return nullptr;
      });
}

/// The copy under `key` that `held` finds, else the one that `make` makes. Several copies of one item at a
/// time would remove each other's file.
std::shared_ptr<NSURL> KZVDropboxFS::heldOrMadeCopy(const std::string& key, const ProgressCallback& progress,
                                                    NSErrorRef* error, const MakeCopy& held,
                                                    const MakeCopy& make) {
  if (auto copy = held()) return copy;
  const KeyedGate::Pass pass(copiesBeingMade_, key, [&] { return !progress || progress({0, 1000}); });
  if (!pass.isHeld()) {
    setError(error, stoppedByUser());
    return nullptr;
  }
  if (auto copy = held()) return copy;
  return make();
}

/// The copy that the cache holds for `path`, with one more user. One of a version that is known to be
/// replaced is not given out, though the report of the change, which drops it, is still on its way.
std::shared_ptr<NSURL> KZVDropboxFS::heldCopy(const std::string& path, const std::string& key) {
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
  const std::string place = placeForCopy(folder, path, error);
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

/// Brings a file's bytes to where they are wanted. Local copies play no part: who wants a file of their own
/// has no use for a second one.
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

/// The instance's folder, asked for when it is first needed, and made anew when something that cleans up has
/// removed it; empty with the error when the host has none to give, or the disk refuses.
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
  return StoredFile{record->path(), record->rev(), record->totalBytes()};
}

std::optional<std::string> KZVDropboxFS::revisionAtPath(const std::string& path) {
  return requiredManager().knownRevision(path);
}
