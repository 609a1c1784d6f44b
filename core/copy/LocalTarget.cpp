#include "core/copy/LocalTarget.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

#include "core/copy/CopyBatch.h"
#include "foundation/Paths.h"
#include "foundation/Unicode.h"

namespace kzv::copy {

namespace {

NSErrorRef reasonAgainst(mode_t mode, const std::string& path) {
  if (S_ISREG(mode)) return nullptr;
  if (S_ISDIR(mode)) return NSError::posix(EISDIR, path);
  return copyError(EINVAL, "there is a device, a pipe or a socket, which is not replaced");
}

/// The path without links; nothing, with errno, on failure.
std::optional<std::string> resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
  return real ? std::optional<std::string>(real.get()) : std::nullopt;
}

/// 0 when `path` is a folder, else an errno value.
int checkFolder(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return errno;
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

}  // namespace

std::optional<std::string> fileTarget(const std::string& path, LinkAtTarget link, NSErrorRef* error) {
  const auto refuse = [&](NSErrorRef reason) {
    setError(error, std::move(reason));
    return std::nullopt;
  };
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return path;
    return refuse(NSError::posix(errno, path));
  }
  if (!S_ISLNK(status.st_mode)) {
    if (NSErrorRef reason = reasonAgainst(status.st_mode, path)) return refuse(std::move(reason));
    return path;
  }
  if (link == LinkAtTarget::refuse) return refuse(copyError(ELOOP, "there is a link, which is not followed"));
  if (::stat(path.c_str(), &status) != 0) {
    return refuse(errno == ENOENT ? copyError(ENOENT, "there is a broken link")
                                  : NSError::posix(errno, path));
  }
  if (NSErrorRef reason = reasonAgainst(status.st_mode, path)) return refuse(std::move(reason));
  auto real = resolved(path);
  return real ? real : refuse(NSError::posix(errno, path));
}

bool makePrivateFolders(const std::string& path, NSErrorRef* error) {
  int reason = checkFolder(path);
  if (reason == ENOENT && path.size() > 1) {
    if (!makePrivateFolders(deletingLastPathComponent(path), error)) return false;
    reason = ::mkdir(path.c_str(), 0700) == 0 ? 0 : errno;
    if (reason == EEXIST) reason = checkFolder(path);  // created by another process
  }
  if (reason) setError(error, NSError::posix(reason, path));
  return reason == 0;
}

std::string fittingName(const std::string& name, const std::string& folder) {
  constexpr std::size_t usualLimit = 255;
  const long reported = ::pathconf(folder.c_str(), _PC_NAME_MAX);
  const std::size_t limit = reported > 0 ? static_cast<std::size_t>(reported) : usualLimit;
  if (name.size() <= limit) return name;
  const std::size_t dot = name.rfind('.');
  // A dot far from the end is not that of an extension.
  constexpr std::size_t longestExtension = 32;
  const bool hasExtension = dot != std::string::npos && dot > 0 && name.size() - dot <= longestExtension;
  const std::string extension = hasExtension ? name.substr(dot) : "";
  return std::string(utf8Prefix(name, limit - extension.size())) + extension;
}

}  // namespace kzv::copy
