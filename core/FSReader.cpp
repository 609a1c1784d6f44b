#include "core/FSReader.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/FSPlugin.h"
#include "core/StoppableCall.h"

FSReader::~FSReader() = default;

std::shared_ptr<FSReader> LocalCopyReader::open(std::shared_ptr<FSPlugin> volume, std::shared_ptr<NSURL> copy,
                                                std::string version, NSErrorRef* error) {
  Descriptor file(::open(copy->path().c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.number(), &status) != 0) {
    setError(error, NSError::posix(errno, copy->path()));
    volume->releaseFileUrl(*copy);
    return nullptr;
  }
  return std::make_shared<LocalCopyReader>(std::move(volume), std::move(copy), std::move(version),
                                           std::move(file), static_cast<std::uint64_t>(status.st_size));
}

LocalCopyReader::LocalCopyReader(std::shared_ptr<FSPlugin> volume, std::shared_ptr<NSURL> copy,
                                 std::string version, Descriptor file, std::uint64_t sizeBytes)
    : volume_(std::move(volume)),
      copy_(std::move(copy)),
      version_(std::move(version)),
      file_(std::move(file)),
      sizeBytes_(sizeBytes) {}

LocalCopyReader::~LocalCopyReader() { volume_->releaseFileUrl(*copy_); }

std::optional<std::size_t> LocalCopyReader::read(std::uint64_t offset, std::span<std::byte> buffer,
                                                 const ShouldContinue& shouldContinue, NSErrorRef* error) {
  std::size_t done = 0;
  while (done < buffer.size()) {
    if (shouldContinue && !shouldContinue()) {
      setError(error, stoppedByUser());
      return std::nullopt;
    }
    const ssize_t count = ::pread(file_.number(), buffer.data() + done, buffer.size() - done,
                                  static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      setError(error, NSError::posix(errno, copy_->path()));
      return std::nullopt;
    }
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}
