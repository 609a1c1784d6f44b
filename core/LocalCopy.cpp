#include "core/LocalCopy.h"

#include <array>
#include <cerrno>
#include <chrono>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/KZVSupport.h"
#include "core/StoppableCall.h"
#include "foundation/Descriptor.h"
#include "foundation/Paths.h"
#include "foundation/ReplacedFile.h"

namespace {

constexpr std::size_t stepBytes = std::size_t{4} * 1024 * 1024;

/// Copies one block with read and write, where copy_file_range does not work. Negative with errno.
ssize_t copyThroughMemory(int from, int to) {
  std::array<char, 64 * 1024> buffer;  // NOLINT: filled before use
  const ssize_t count = ::read(from, buffer.data(), buffer.size());
  for (ssize_t written = 0; written < count;) {
    const ssize_t step = ::write(to, buffer.data() + written, static_cast<std::size_t>(count - written));
    if (step < 0 && errno == EINTR) continue;
    if (step < 0) return -1;
    written += step;
  }
  return count;
}

/// Copies everything. 0, ECANCELED after a stop, or another errno value.
int copyBytes(int from, int to, const std::function<bool()>& shouldContinue) {
  if (::ioctl(to, FICLONE, from) == 0) return 0;
  bool throughKernel = true;
  while (true) {
    if (!shouldContinue()) return ECANCELED;
    const ssize_t count = throughKernel ? ::copy_file_range(from, nullptr, to, nullptr, stepBytes, 0)
                                        : copyThroughMemory(from, to);
    const bool isRefused = count < 0 && throughKernel && errno != ENOSPC && errno != EDQUOT && errno != EIO;
    // Some virtual file systems return 0 at once.
    const bool isIgnored = count == 0 && throughKernel && ::lseek(to, 0, SEEK_CUR) == 0;
    if (isRefused || isIgnored) {
      throughKernel = false;
    } else if (count == 0) {
      return 0;
    } else if (count < 0 && errno != EINTR) {
      return errno;
    }
  }
}

int setModified(int file, const std::optional<NSDate::Time>& modified) {
  if (!modified) return 0;
  using namespace std::chrono;
  const auto whole = floor<seconds>(*modified);
  const timespec time{whole.time_since_epoch().count(),
                      duration_cast<nanoseconds>(*modified - whole).count()};
  const timespec times[2]{time, time};
  return ::futimens(file, times) == 0 ? 0 : errno;
}

using Fill = std::function<int(int file)>;

/// Creates `temporary` with the bytes that `fill` writes. 0 or an errno value.
int makeTemporary(const std::string& temporary, const std::string& to, const LocalCopyOptions& options,
                  const Fill& fill) {
  const mode_t mode = options.access == LocalAccess::ownerOnly ? 0600 : 0666;
  Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!file.isOpen()) return errno;
  if (const int reason = fill(file.number())) return reason;
  if (const int reason = setModified(file.number(), options.modified)) return reason;
  if (options.access == LocalAccess::byUmask) takePermissionsFrom(to, file.number());
  if (options.isDurable && ::fsync(file.number()) != 0) return errno;
  return file.close();
}

void syncFolder(const std::string& folder) {
  const Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.isOpen()) ::fsync(opened.number());
}

bool refuse(NSErrorRef* error, int reason, const std::string& path) {
  setError(error, reason == ECANCELED ? stoppedByUser() : NSError::posix(reason, path));
  return false;
}

bool makeFile(const std::string& to, const LocalCopyOptions& options, const Fill& fill, NSErrorRef* error) {
  const std::string folder = deletingLastPathComponent(to);
  const std::string temporary = appendingPathComponent(folder, ".kzv-" + KZVSupport::uniquePathComponent());
  int reason = makeTemporary(temporary, to, options, fill);
  if (reason == 0 && ::rename(temporary.c_str(), to.c_str()) != 0) reason = errno;
  if (reason) {
    ::unlink(temporary.c_str());
    return refuse(error, reason, to);
  }
  if (options.isDurable) syncFolder(folder);
  return true;
}

}  // namespace

bool copyLocalFile(const std::string& from, const std::string& to, const LocalCopyOptions& options,
                   const std::function<bool()>& shouldContinue, NSErrorRef* error) {
  const Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!source.isOpen() || ::fstat(source.number(), &status) != 0) return refuse(error, errno, from);
  if (!S_ISREG(status.st_mode)) return refuse(error, S_ISDIR(status.st_mode) ? EISDIR : EINVAL, from);
  return makeFile(
      to, options, [&](int file) { return copyBytes(source.number(), file, shouldContinue); }, error);
}

bool makeEmptyFile(const std::string& to, const LocalCopyOptions& options, NSErrorRef* error) {
  return makeFile(
      to, options, [](int) { return 0; }, error);
}
