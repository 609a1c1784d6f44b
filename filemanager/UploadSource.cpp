#include "filemanager/UploadSource.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/StoppableCall.h"
#include "foundation/FileVersion.h"

namespace {

template <class Call>
ssize_t uninterrupted(const Call& call) {
  ssize_t result = 0;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

/// Bytes read at the offset, at most one; negative with errno.
ssize_t byteAt(int file, off_t offset) {
  char byte = 0;
  return uninterrupted([&] { return ::pread(file, &byte, 1, offset); });
}

/// Whether a reader finds just as many bytes as the file system tells. Nothing with errno.
std::optional<bool> isSizeTrue(int file, off_t sizeBytes) {
  const ssize_t last = sizeBytes > 0 ? byteAt(file, sizeBytes - 1) : 1;
  const ssize_t beyond = last < 0 ? last : byteAt(file, sizeBytes);
  if (beyond < 0) return std::nullopt;
  return last == 1 && beyond == 0;
}

/// A file that no name leads to, so that nothing of it outlives this process. Closed with errno on failure.
Descriptor unnamedFile() {
  std::error_code code;
  const std::string folder = std::filesystem::temp_directory_path(code).string();
  if (code) {
    errno = code.value();
    return {};
  }
  Descriptor file(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (file.isOpen() || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return file;
  std::string name = folder + "/.kzv-XXXXXX";
  file = Descriptor(::mkostemp(name.data(), O_CLOEXEC));
  if (file.isOpen()) ::unlink(name.c_str());
  return file;
}

bool writeAll(int file, const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = uninterrupted([&] { return ::write(file, bytes, count); });
    if (written < 0) return false;
    bytes += written;
    count -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

UploadSource::UploadSource(std::string path, std::uint64_t sizeBytes, std::string version)
    : path_(std::move(path)), sizeBytes_(sizeBytes), version_(std::move(version)) {}

std::unique_ptr<UploadSource> UploadSource::open(const std::string& path, const ProgressCallback& progress,
                                                 NSErrorRef* error) {
  const auto refuse = [&](int reason) {
    setError(error, NSError::posix(reason, path));
    return nullptr;
  };
  if (path.find('\0') != std::string::npos) return refuse(EINVAL);
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // never waits for a pipe
  if (!file.isOpen()) return refuse(errno);
  struct stat status {};
  if (::fstat(file.number(), &status) != 0) return refuse(errno);
  if (!S_ISREG(status.st_mode)) return refuse(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  const auto version = fileVersion(file.number(), path, error);
  if (!version) return nullptr;
  const auto isTrue = isSizeTrue(file.number(), status.st_size);
  if (!isTrue) return refuse(errno);
  // One that changes right now has another version by now, which its sender will notice.
  if (!*isTrue && fileVersion(file.number(), path) == *version)
    return copyOf(file.number(), path, progress, error);
  return std::unique_ptr<UploadSource>(
      new UploadSource(path, static_cast<std::uint64_t>(status.st_size), *version));
}

std::unique_ptr<UploadSource> UploadSource::copyOf(int file, const std::string& path,
                                                   const ProgressCallback& progress, NSErrorRef* error) {
  constexpr std::size_t pieceBytes = 256UL * 1024;
  Descriptor copy = unnamedFile();
  std::vector<char> buffer(pieceBytes);
  std::uint64_t sizeBytes = 0;
  bool isWhole = copy.isOpen();
  for (ssize_t count = 1; isWhole && count > 0;) {
    if (progress && !progress({0, 1000})) {
      setError(error, stoppedByUser());
      return nullptr;
    }
    count = uninterrupted([&] { return ::read(file, buffer.data(), buffer.size()); });
    isWhole = count >= 0 && writeAll(copy.number(), buffer.data(), static_cast<std::size_t>(count));
    sizeBytes += isWhole ? static_cast<std::uint64_t>(count) : 0;
  }
  struct stat status {};
  if (!isWhole || ::fstat(file, &status) != 0) {
    setError(error, NSError::posix(errno, path));
    return nullptr;
  }
  const timespec times[2]{status.st_mtim, status.st_mtim};
  ::futimens(copy.number(), times);
  const auto version = fileVersion(copy.number(), path, error);
  if (!version) return nullptr;
  auto source = std::unique_ptr<UploadSource>(
      new UploadSource("/proc/self/fd/" + std::to_string(copy.number()), sizeBytes, *version));
  source->copy_ = std::move(copy);
  return source;
}

bool UploadSource::hasChanged() const {
  const auto now = fileVersion(path_);
  return now && *now != version_;
}
