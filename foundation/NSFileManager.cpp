#include "foundation/NSFileManager.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/Descriptor.h"
#include "foundation/Paths.h"

namespace fs = std::filesystem;

namespace {

bool fail(NSErrorRef* error, int errnoValue, const std::string& path) {
  setError(error, NSError::posix(errnoValue, path));
  return false;
}

/// A template for mkostemp, which replaces each X with a letter or digit.
constexpr std::string_view atomicWriteName = ".kzv-XXXXXX";

bool containsNul(std::string_view path) { return path.find('\0') != std::string_view::npos; }

bool writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

/// A rename is durable only once its folder has been synced.
void syncFolderOf(const std::string& path) {
  std::string name = deletingLastPathComponent(path);
  if (name.empty()) name = ".";
  const Descriptor folder(::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.isOpen()) ::fsync(folder.number());
}

}  // namespace

NSFileManager& NSFileManager::defaultManager() {
  static NSFileManager manager;
  return manager;
}

bool NSFileManager::removeItemAtPath(const std::string& path, NSErrorRef* error) {
  if (containsNul(path)) return fail(error, EINVAL, path);
  // A trailing slash would make the system follow a link.
  std::string item = path;
  while (item.size() > 1 && item.ends_with('/')) item.pop_back();
  std::error_code code;
  const auto removed = fs::remove_all(item, code);
  if (code) return fail(error, code.value(), path);
  return removed > 0 || fail(error, ENOENT, path);
}

bool NSFileManager::removeItemAtURL(const NSURL& url, NSErrorRef* error) {
  const std::string path = url.path();
  return path.empty() ? fail(error, EINVAL, url.absoluteString()) : removeItemAtPath(path, error);
}

bool NSFileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                          NSErrorRef* error) {
  if (containsNul(path)) return fail(error, EINVAL, path);
  std::error_code code;
  if (!withIntermediateDirectories) {
    const bool created = fs::create_directory(path, code);
    if (code) return fail(error, code.value(), path);
    return created || fail(error, EEXIST, path);
  }
  fs::create_directories(path, code);
  if (code) return fail(error, code.value(), path);
  return fs::is_directory(path, code) || fail(error, ENOTDIR, path);
}

std::optional<std::uint64_t> NSFileManager::fileSize(const std::string& path, NSErrorRef* error) {
  struct stat status {};
  if (containsNul(path)) {
    fail(error, EINVAL, path);
    return std::nullopt;
  }
  if (::stat(path.c_str(), &status) != 0) {
    fail(error, errno, path);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    fail(error, S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

bool writeFile(const std::string& path, std::string_view bytes, NSErrorRef* error) {
  if (containsNul(path)) return fail(error, EINVAL, path);
  Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!file.isOpen() || !writeAll(file.number(), bytes) || file.close() != 0) return fail(error, errno, path);
  return true;
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, unsigned mode, NSErrorRef* error) {
  if (containsNul(path)) return fail(error, EINVAL, path);
  // Not the file's name plus a suffix: that may exceed the maximum length.
  std::string temporary = appendingPathComponent(deletingLastPathComponent(path), atomicWriteName);
  Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.isOpen()) return fail(error, errno, path);
  const bool isStored = ::fchmod(file.number(), mode) == 0 && writeAll(file.number(), bytes) &&
                        ::fsync(file.number()) == 0 && file.close() == 0 &&
                        ::rename(temporary.c_str(), path.c_str()) == 0;
  if (!isStored) {
    const int reason = errno;
    ::unlink(temporary.c_str());
    return fail(error, reason, path);
  }
  syncFolderOf(path);
  return true;
}

bool isAtomicWriteName(std::string_view name) {
  const std::string_view start = atomicWriteName.substr(0, atomicWriteName.find('X'));
  return name.size() == atomicWriteName.size() && name.starts_with(start) &&
         std::all_of(name.begin() + static_cast<std::ptrdiff_t>(start.size()), name.end(),
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
}

std::optional<std::string> readFile(const std::string& path, std::uint64_t limitBytes, NSErrorRef* error) {
  const auto refuse = [&](int reason) {
    fail(error, reason, path);
    return std::nullopt;
  };
  if (containsNul(path)) return refuse(EINVAL);
  // Opening must not wait for a FIFO's writer, nor acquire a controlling terminal.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.number(), &status) != 0) return refuse(errno);
  if (!S_ISREG(status.st_mode)) return refuse(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  if (static_cast<std::uint64_t>(status.st_size) > limitBytes) return refuse(EFBIG);
  auto bytes = readAll(file, static_cast<std::size_t>(status.st_size));
  return bytes ? bytes : refuse(errno);
}

std::optional<std::string> readAll(const Descriptor& file, std::size_t sizeBytes) {
  std::string bytes(sizeBytes, '\0');
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t count = ::read(file.number(), bytes.data() + filled, bytes.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  bytes.resize(filled);
  return bytes;
}
