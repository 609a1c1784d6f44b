#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace kzv::standin {

/// Owns a file descriptor and closes it.
class OwnedFd {
 public:
  explicit OwnedFd(int fd = -1) : fd_(fd) {}
  ~OwnedFd() {
    if (isOpen()) ::close(fd_);
  }
  OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_;
};

/// pwrite(2) and pread(2), repeated until complete. Both return false with errno when the system call fails;
/// a short read at the end of the file is a failure, with errno 0.
bool writeAt(int fd, std::string_view bytes, std::uint64_t offset);
bool readAt(int fd, char* bytes, std::size_t size, std::uint64_t offset);

}  // namespace kzv::standin
