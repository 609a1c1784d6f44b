#include "foundation/FileLock.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "foundation/NSString.h"

namespace {

constexpr std::chrono::milliseconds retryPause{5};

/// The process that holds the flock of an open file, from /proc/locks (proc(5)): "1: FLOCK ADVISORY WRITE
/// 1234 08:02:5678 0 EOF". 0 when it is not listed, e.g. a process of another container.
pid_t holderOf(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return 0;
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, mode, access, place;
    pid_t process = 0;
    // For a process that waits for the lock `kind` is "->". The device is not compared: on stacked file
    // systems it differs from stat's.
    words >> number >> kind >> mode >> access >> process >> place;
    const auto inode = place.rfind(':');
    if (kind == "FLOCK" && inode != std::string::npos &&
        place.substr(inode + 1) == std::to_string(status.st_ino))
      return process;
  }
  return 0;
}

std::string nameOf(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/comm", process));
  std::string name;
  std::getline(file, name);
  return name;
}

NSErrorRef heldError(const std::string& path, pid_t holder) {
  const std::string name = holder > 0 ? nameOf(holder) : "";
  const std::string who = holder <= 0    ? "another process"
                          : name.empty() ? fmt::format("process {}", holder)
                                         : fmt::format("{} (process {})", name, holder);
  return NSError::withText(NSPOSIXErrorDomain, EWOULDBLOCK,
                           fmt::format("{} is in use: {} holds its lock", path, who),
                           {{NSFilePathErrorKey, str(path)}});
}

}  // namespace

FileLock::FileLock(const std::string& path, std::chrono::milliseconds timeout)
    : FileLock(AT_FDCWD, path, O_CREAT, timeout) {}

FileLock::FileLock(const Descriptor& folder, const std::string& name, LockFile lockFile,
                   std::chrono::milliseconds timeout)
    : FileLock(folder.number(), name,
               lockFile == LockFile::create      ? O_CREAT
               : lockFile == LockFile::createNew ? O_CREAT | O_EXCL
                                                 : 0,
               timeout) {}

FileLock::FileLock(int folder, const std::string& name, int flags, std::chrono::milliseconds timeout)
    : file_(::openat(folder, name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, 0600)) {
  if (!file_.isOpen()) {
    error_ = NSError::posix(errno, name);
    return;
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (::flock(file_.number(), LOCK_EX | LOCK_NB) != 0) {
    const int reason = errno;
    const bool isHeldElsewhere = reason == EWOULDBLOCK;
    if (reason != EINTR && !isHeldElsewhere) {
      error_ = NSError::posix(reason, name);
      return;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      error_ = heldError(name, holderOf(file_.number()));
      return;
    }
    std::this_thread::sleep_for(retryPause);
  }
  struct stat status {};
  const bool stillExists =
      ::fstat(file_.number(), &status) == 0 && status.st_nlink > 0 && S_ISREG(status.st_mode);
  if (!stillExists) error_ = NSError::posix(ENOENT, name);
}
