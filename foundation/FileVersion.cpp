#include "foundation/FileVersion.h"

#include <cerrno>

#include <sys/stat.h>

namespace {

std::string textOf(const timespec& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

std::string versionOf(const struct stat& status) {
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) + ":" +
         std::to_string(status.st_size) + ":" + textOf(status.st_mtim) + ":" + textOf(status.st_ctim);
}

}  // namespace

std::optional<std::string> fileVersion(const std::string& path, NSErrorRef* error) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return versionOf(status);
  setError(error, NSError::posix(errno, path));
  return std::nullopt;
}

std::optional<std::string> fileVersion(int descriptor, const std::string& path, NSErrorRef* error) {
  struct stat status {};
  if (::fstat(descriptor, &status) == 0) return versionOf(status);
  setError(error, NSError::posix(errno, path));
  return std::nullopt;
}
