#include "foundation/PrivateFiles.h"

#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/Descriptor.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/Paths.h"
#include "foundation/StandardFolders.h"

namespace {

constexpr mode_t ownerOnlyFolder = 0700;
constexpr mode_t ownerOnlyFile = 0600;
constexpr mode_t othersBits = 0077;

bool fail(NSErrorRef* error, int reason, const std::string& path) {
  setError(error, NSError::posix(reason, path));
  return false;
}

bool refuse(NSErrorRef* error, int reason, const std::string& text) {
  setError(error, NSError::withText(NSPOSIXErrorDomain, reason, text));
  return false;
}

bool isOwnOrRoots(const struct stat& status) { return status.st_uid == ::geteuid() || status.st_uid == 0; }

bool isOwnFolder(const std::string& path) {
  for (const std::string& own : {configFolder(), dataFolder(), cacheFolder(), stateFolder()})
    if (path == own || path.starts_with(own + "/")) return true;
  return false;
}

void warnPermissionsRestricted(const std::string& path, mode_t mode) {
  NSLog(NSLogLevel::warning, "PrivateFiles",
        fmt::format("{} was open to other users (mode {:04o}) and has been closed", path, mode & 07777U));
}

/// @param isOwn  whether the folder is this program's own, so that its permissions may be restricted.
bool checkFolder(const std::string& path, const struct stat& status, bool isOwn, NSErrorRef* error) {
  if (!S_ISDIR(status.st_mode)) return fail(error, ENOTDIR, path);
  if (!isOwn) return true;
  if (!isOwnOrRoots(status))
    return refuse(error, EPERM, path + " belongs to another user, who could read it");
  if ((status.st_mode & othersBits) == 0) return true;
  if (::chmod(path.c_str(), ownerOnlyFolder) != 0) return fail(error, errno, path);
  warnPermissionsRestricted(path, status.st_mode);
  return true;
}

}  // namespace

bool makePrivateFolder(const std::string& path, NSErrorRef* error) {
  const std::string parent = deletingLastPathComponent(path);
  const bool isOwn = isOwnFolder(path);
  struct stat status {};
  const bool exists = ::stat(path.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) return fail(error, errno, path);
  const bool hasParent = !parent.empty() && parent != path;
  if (hasParent && (!exists || isOwn) && !makePrivateFolder(parent, error)) return false;
  if (!exists && ::mkdir(path.c_str(), ownerOnlyFolder) == 0) return true;
  if (!exists && (errno != EEXIST || ::stat(path.c_str(), &status) != 0)) return fail(error, errno, path);
  return checkFolder(path, status, isOwn, error);
}

std::optional<std::string> readPrivateFile(const std::string& path, std::uint64_t limitBytes,
                                           NSErrorRef* error) {
  // Opening must not wait for a FIFO's writer, nor acquire a controlling terminal.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.isOpen() && errno == ELOOP) {
    refuse(error, ELOOP, path + " is a symbolic link, which is not followed");
    return std::nullopt;
  }
  if (!file.isOpen() || ::fstat(file.number(), &status) != 0) {
    fail(error, errno, path);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > limitBytes) {
    fail(error, S_ISREG(status.st_mode) ? EFBIG : S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
    return std::nullopt;
  }
  if (!isOwnOrRoots(status)) {
    refuse(error, EPERM, path + " belongs to another user");
    return std::nullopt;
  }
  if ((status.st_mode & othersBits) != 0) {
    if (::fchmod(file.number(), ownerOnlyFile) != 0) {
      fail(error, errno, path);
      return std::nullopt;
    }
    warnPermissionsRestricted(path, status.st_mode);
  }
  auto bytes = readAll(file, static_cast<std::size_t>(status.st_size));
  if (!bytes) fail(error, errno, path);
  return bytes;
}
