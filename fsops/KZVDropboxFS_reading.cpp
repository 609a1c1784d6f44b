#include "core/FSError.h"
#include "core/KZVSupport.h"
#include "core/StoppableCall.h"
#include "foundation/Paths.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"

std::shared_ptr<FSReader> KZVDropboxFS::openReader(const std::string& path, const std::string& version,
                                                   ProgressCallback progress, NSErrorRef* error) {
  std::string wanted = version;
  if (wanted.empty()) {
    const auto record = requiredManager().metadata(path, progress, ServiceErrors(error));
    if (!record || record->isDeleted()) return nullptr;
    if (record->isDirectory()) {
      setError(error, fsError(FSErrorCode::isFolder, "\"" + path + "\" is a folder."));
      return nullptr;
    }
    wanted = record->rev();
  }
  auto copy = copyOfVersion(wanted, std::move(progress), error);
  if (!copy) return nullptr;
  return LocalCopyReader::open(shared_from_this(), std::move(copy), std::move(wanted), error);
}

/// A local copy of one version, with one more user. Cached by version and not by path: a version never
/// changes, so no change notice has to drop its copy.
std::shared_ptr<NSURL> KZVDropboxFS::copyOfVersion(const std::string& version, ProgressCallback progress,
                                                   NSErrorRef* error) {
  const std::string key = "rev:" + version;  // cannot be a path, which begins with a slash
  return cachedOrNewCopy(
      key, progress, error, [&] { return cache().urlForKey(key); },
      [&]() -> std::shared_ptr<NSURL> {
        const std::string folder = requiredTemporaryFolder(error);
        if (folder.empty()) return nullptr;
        auto local =
            NSURL::fileURLWithPath(appendingPathComponent(folder, KZVSupport::uniquePathComponent()));
        auto copy = requiredManager().loadRevision(version, std::move(local), LocalAccess::ownerOnly,
                                                   progress, ServiceErrors(error));
        if (copy) cache().setUrl(copy, key);
        return copy;
      });
}
