#include "standin/OwnedFd.h"

#include <cerrno>

namespace kzv::standin {

bool writeAt(int fd, std::string_view bytes, std::uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t count = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
  return true;
}

bool readAt(int fd, char* bytes, std::size_t size, std::uint64_t offset) {
  for (std::size_t done = 0; done < size;) {
    errno = 0;
    const ssize_t count = ::pread(fd, bytes + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace kzv::standin
