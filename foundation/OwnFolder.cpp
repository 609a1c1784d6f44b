#include "foundation/OwnFolder.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> namesIn(int folder) {
  std::vector<std::string> names;
  // Opened anew: a duplicate would share its read position.
  Descriptor reading(::openat(folder, ".", folderFlags));
  if (!reading.isOpen()) return names;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(reading.number()), &::closedir);
  if (!entries) return names;
  reading.release();
  while (const dirent* entry = ::readdir(entries.get())) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  }
  return names;
}

int removeAt(int folder, const std::string& name) {
  if (::unlinkat(folder, name.c_str(), 0) == 0) return 0;
  if (errno != EISDIR) return errno;
  {
    const Descriptor inner(::openat(folder, name.c_str(), folderFlags));
    if (!inner.isOpen()) return errno;
    for (const std::string& child : namesIn(inner.number())) {
      if (const int reason = removeAt(inner.number(), child)) return reason;
    }
  }
  return ::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
}

}  // namespace

std::optional<OwnFolder> OwnFolder::open(const std::string& path, NSErrorRef* error) {
  const auto refuse = [&](int reason) {
    setError(error, NSError::posix(reason, path));
    return std::nullopt;
  };
  Descriptor folder(::open(path.c_str(), folderFlags));
  if (!folder.isOpen()) return refuse(errno == ELOOP ? ENOTDIR : errno);
  struct stat status {};
  if (::fstat(folder.number(), &status) != 0) return refuse(errno);
  if (status.st_uid != ::geteuid()) return refuse(EPERM);
  return OwnFolder(std::move(folder));
}

std::vector<std::string> OwnFolder::names() const { return namesIn(folder_.number()); }

int OwnFolder::makeFolder(const std::string& name) const {
  return ::mkdirat(folder_.number(), name.c_str(), 0700) == 0 ? 0 : errno;
}

int OwnFolder::removeFile(const std::string& name) const {
  struct stat status {};
  if (::fstatat(folder_.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  return ::unlinkat(folder_.number(), name.c_str(), 0) == 0 ? 0 : errno;
}

int OwnFolder::removeTree(const std::string& name) const { return removeAt(folder_.number(), name); }
