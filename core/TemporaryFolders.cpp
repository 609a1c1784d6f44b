#include "core/TemporaryFolders.h"

#include <cerrno>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/DLog.h"
#include "core/KZVSupport.h"
#include "foundation/NSFileManager.h"
#include "foundation/Paths.h"

namespace {

constexpr std::string_view lockSuffix = ".lock";

std::string lockPath(const std::string& folder) { return folder + std::string(lockSuffix); }

bool refuse(NSErrorRef* error, int reason, const std::string& path) {
  setError(error, NSError::posix(reason, path));
  return false;
}

/// Takes the lock at `path` without waiting and returns its descriptor, or -1 with errno. `flags` is added to
/// what open() gets. A lock file that somebody removed between our opening and our locking counts as gone:
/// its lock protects nothing.
int takeLock(const std::string& path, int flags) {
  const int file = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | flags, 0600);
  if (file < 0) return -1;
  struct stat opened {};
  int reason = 0;
  if (::flock(file, LOCK_EX | LOCK_NB) != 0 || ::fstat(file, &opened) != 0) reason = errno;
  if (reason == 0 && opened.st_nlink > 0) return file;
  ::close(file);
  errno = reason ? reason : ENOENT;
  return -1;
}

/// The names of the process folders below `root`, whoever made them.
std::vector<std::string> namesWithLock(const std::string& root) {
  std::vector<std::string> names;
  DIR* folder = ::opendir(root.c_str());
  if (!folder) return names;
  while (const dirent* entry = ::readdir(folder)) {
    const std::string_view name = entry->d_name;
    if (name.ends_with(lockSuffix)) names.emplace_back(name.substr(0, name.size() - lockSuffix.size()));
  }
  ::closedir(folder);
  return names;
}

/// The folder first, its lock file last: one that was cut off half-way is found again at the next start.
void removeLocked(const std::string& folder) {
  NSErrorRef error;
  if (NSFileManager::defaultManager().removeItemAtPath(folder, &error) || error->code() == ENOENT) {
    ::unlink(lockPath(folder).c_str());
  } else {
    DLog(error->localizedDescription(), "TemporaryFolders::removeLocked");
  }
}

}  // namespace

TemporaryFolders::TemporaryFolders(std::string root) : root_(std::move(root)) {}

TemporaryFolders::~TemporaryFolders() { removeOwn(); }

std::shared_ptr<NSURL> TemporaryFolders::makeFolder(NSErrorRef* error) {
  const std::lock_guard lock(mutex_);
  if (processFolder_.empty() && !makeProcessFolder(error)) return nullptr;
  const std::string folder = appendingPathComponent(processFolder_, KZVSupport::uniquePathComponent());
  if (::mkdir(folder.c_str(), 0700) != 0) {
    refuse(error, errno, folder);
    return nullptr;
  }
  return NSURL::fileURLWithPath(folder);
}

bool TemporaryFolders::prepareRoot(NSErrorRef* error) const {
  const std::string parent = deletingLastPathComponent(root_);
  if (!NSFileManager::defaultManager().createDirectoryAtPath(parent, true, error)) return false;
  if (::mkdir(root_.c_str(), 0700) == 0) return true;
  if (errno != EEXIST) return refuse(error, errno, root_);
  struct stat status {};
  if (::lstat(root_.c_str(), &status) != 0) return refuse(error, errno, root_);
  if (!S_ISDIR(status.st_mode)) return refuse(error, ENOTDIR, root_);
  if (status.st_uid != ::geteuid()) return refuse(error, EACCES, root_);  // another user could read along
  if ((status.st_mode & 0777U) != 0700 && ::chmod(root_.c_str(), 0700) != 0)
    return refuse(error, errno, root_);
  return true;
}

bool TemporaryFolders::makeProcessFolder(NSErrorRef* error) {
  if (!prepareRoot(error)) return false;
  // Another process that cleans up may take the lock between our making the file and our locking it; then
  // that name is its to remove, and we take another.
  constexpr int attempts = 20;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    const std::string folder =
        appendingPathComponent(root_, fmt::format("{}-{}", ::getpid(), KZVSupport::uniquePathComponent()));
    const int lock = takeLock(lockPath(folder), O_CREAT | O_EXCL);
    if (lock < 0 && (errno == EWOULDBLOCK || errno == ENOENT || errno == EEXIST)) continue;
    if (lock < 0) return refuse(error, errno, lockPath(folder));
    if (::mkdir(folder.c_str(), 0700) != 0) {
      const int reason = errno;
      ::unlink(lockPath(folder).c_str());
      ::close(lock);
      return refuse(error, reason, folder);
    }
    processFolder_ = folder;
    lock_ = lock;
    return true;
  }
  return refuse(error, EBUSY, root_);
}

void TemporaryFolders::removeAbandoned() {
  for (const std::string& name : namesWithLock(root_)) {
    const std::string folder = appendingPathComponent(root_, name);
    const int lock = takeLock(lockPath(folder), 0);
    if (lock < 0) continue;  // its process lives, or somebody else is removing it
    removeLocked(folder);
    ::close(lock);
  }
}

void TemporaryFolders::removeOwn() {
  const std::lock_guard lock(mutex_);
  if (processFolder_.empty()) return;
  removeLocked(std::exchange(processFolder_, {}));
  ::close(std::exchange(lock_, -1));
}
