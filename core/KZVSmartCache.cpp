#include "core/KZVSmartCache.h"

#include <cerrno>
#include <filesystem>
#include <list>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/DLog.h"
#include "core/KZVSupport.h"
#include "foundation/NSFileManager.h"
#include "foundation/Paths.h"

namespace {

/// Identifies the file at a path. Inode numbers are reused after a deletion, so the creation time is
/// included, or the modification time on disks without creation times.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
  bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> identityOf(const std::string& path) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_MTIME | STATX_BTIME, &status) !=
      0)
    return std::nullopt;
  const auto& time = (status.stx_mask & STATX_BTIME) ? status.stx_btime : status.stx_mtime;
  const std::uint64_t device = (std::uint64_t{status.stx_dev_major} << 32) | status.stx_dev_minor;
  return FileIdentity{device, status.stx_ino, time.tv_sec, time.tv_nsec};
}

/// The bytes of a file, or of all regular files below a folder; unreadable items count as 0.
std::uint64_t measure(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code code;
  const auto bytesOf = [](const fs::directory_entry& entry) -> std::uint64_t {
    std::error_code ignored;
    if (!fs::is_regular_file(entry.symlink_status(ignored))) return 0;
    const auto bytes = entry.file_size(ignored);
    return ignored ? 0 : bytes;
  };
  const fs::directory_entry top(path, code);
  if (code || !top.is_directory(code)) return bytesOf(top);
  std::uint64_t total = 0;
  for (fs::recursive_directory_iterator entry(path, code), end; !code && entry != end; entry.increment(code))
    total += bytesOf(*entry);
  return total;
}

struct Copy {
  std::shared_ptr<NSURL> url;
  std::string path;
  std::string key;
  bool isForgotten = false;  // no longer found by its key
  std::uint64_t users = 0;
  std::uint64_t sizeBytes = 0;
  std::optional<FileIdentity> identity;         // absent: no file when it was stored
  std::list<Copy*>::iterator unusedPosition{};  // valid while users is 0
};

/// Renames the file, so that its path is free at once and the deletion can be slow. Returns the new path;
/// empty when the path now belongs to another file, or none.
std::string moveAside(const Copy& copy) {
  if (!copy.identity || identityOf(copy.path) != copy.identity) return {};
  std::string aside = appendingPathComponent(deletingLastPathComponent(copy.path),
                                             ".deleted-" + KZVSupport::uniquePathComponent());
  if (::rename(copy.path.c_str(), aside.c_str()) != 0) return {};
  if (identityOf(aside) == copy.identity) return aside;
  // A new file was put there between the check and the rename: it is moved back, unless there is a still
  // newer one.
  if (::renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, copy.path.c_str(), RENAME_NOREPLACE) == 0) return {};
  if (errno == EEXIST) return aside;
  if (::rename(aside.c_str(), copy.path.c_str()) != 0)  // the disk does not support RENAME_NOREPLACE
    DLogWarning("cannot move back " + copy.path, "KZVSmartCache::moveAside");
  return {};
}

}  // namespace

struct KZVSmartCache::State {
  explicit State(std::uint64_t budget) : budgetBytes(budget) {}

  using Garbage = std::vector<std::string>;  // files moved aside, to be deleted without the lock

  const std::uint64_t budgetBytes;
  mutable std::mutex mutex;
  // All below guarded by mutex. Every copy is in byPath; in byKey unless forgotten; in unused while it has no
  // users, which a forgotten copy always has.
  std::unordered_map<std::string, std::unique_ptr<Copy>> byPath;
  std::unordered_map<std::string, Copy*> byKey;
  std::list<Copy*> unused;  // least recently used first
  std::uint64_t unusedBytes = 0;

  void use(Copy& copy) {
    if (copy.users++ > 0) return;
    unused.erase(copy.unusedPosition);
    unusedBytes -= copy.sizeBytes;
  }

  void setUnused(Copy& copy) {
    copy.unusedPosition = unused.insert(unused.end(), &copy);
    unusedBytes += copy.sizeBytes;
  }

  /// Removes the copy from the cache and moves its file aside, if it exists.
  void drop(Copy& copy, Garbage& garbage) {
    if (!copy.isForgotten) byKey.erase(copy.key);
    if (copy.users == 0 && !copy.isForgotten) {
      unused.erase(copy.unusedPosition);
      unusedBytes -= copy.sizeBytes;
    }
    if (std::string aside = moveAside(copy); !aside.empty()) garbage.push_back(std::move(aside));
    byPath.erase(std::string(copy.path));
  }

  void forget(Copy& copy, Garbage& garbage) {
    if (copy.users == 0) return drop(copy, garbage);
    byKey.erase(copy.key);
    copy.isForgotten = true;
  }

  void forgetKey(const std::string& key, Garbage& garbage) {
    if (const auto found = byKey.find(key); found != byKey.end()) forget(*found->second, garbage);
  }

  void release(Copy& copy, Garbage& garbage) {
    if (--copy.users > 0) return;
    if (copy.isForgotten) return drop(copy, garbage);
    setUnused(copy);
    while (unusedBytes > budgetBytes) drop(*unused.front(), garbage);
  }

  /// The copy at `path`, new or existing, with one more user and without a key.
  Copy& adopt(const std::string& path) {
    auto& place = byPath[path];
    if (!place) {
      place = std::make_unique<Copy>();
      place->path = path;
      place->users = 1;
      return *place;
    }
    if (!place->isForgotten) byKey.erase(place->key);
    use(*place);
    return *place;
  }
};

namespace {
void deleteAll(const std::vector<std::string>& garbage) {
  for (const std::string& path : garbage) {
    NSErrorRef error;
    if (!NSFileManager::defaultManager().removeItemAtPath(path, &error))
      DLog(error->localizedDescription(), "KZVSmartCache::deleteAll");
  }
}
}  // namespace

KZVSmartCache::KZVSmartCache(std::uint64_t budgetBytes) : state_(std::make_unique<State>(budgetBytes)) {}

KZVSmartCache::~KZVSmartCache() {
  State::Garbage garbage;
  {
    const std::lock_guard lock(state_->mutex);
    while (!state_->unused.empty()) state_->drop(*state_->unused.front(), garbage);
  }
  deleteAll(garbage);
}

std::shared_ptr<NSURL> KZVSmartCache::urlForKey(const std::string& key) {
  State::Garbage garbage;  // stays empty: the file does not exist
  const std::lock_guard lock(state_->mutex);
  const auto found = state_->byKey.find(key);
  if (found == state_->byKey.end()) return nullptr;
  Copy& copy = *found->second;
  if (!identityOf(copy.path)) {
    state_->forget(copy, garbage);
    return nullptr;
  }
  state_->use(copy);
  return copy.url;
}

void KZVSmartCache::setUrl(std::shared_ptr<NSURL> url, const std::string& key) {
  if (!url) return;
  const std::string path = url->path();
  const std::uint64_t sizeBytes = measure(path);
  State::Garbage garbage;
  {
    const std::lock_guard lock(state_->mutex);
    const auto before = state_->byKey.find(key);
    if (before != state_->byKey.end() && before->second->path != path)
      state_->forget(*before->second, garbage);
    Copy& copy = state_->adopt(path);
    copy.url = std::move(url);
    copy.key = key;
    copy.isForgotten = false;
    copy.sizeBytes = sizeBytes;
    copy.identity = identityOf(path);
    state_->byKey[key] = &copy;
  }
  deleteAll(garbage);
}

std::shared_ptr<const std::string> KZVSmartCache::keyForUrl(const NSURL& url) const {
  const std::string path = url.path();
  const std::lock_guard lock(state_->mutex);
  const auto found = state_->byPath.find(path);
  return found == state_->byPath.end() ? nullptr : std::make_shared<const std::string>(found->second->key);
}

void KZVSmartCache::releaseUrl(const NSURL& url) {
  const std::string path = url.path();
  State::Garbage garbage;
  {
    const std::lock_guard lock(state_->mutex);
    const auto found = state_->byPath.find(path);
    if (found == state_->byPath.end() || found->second->users == 0) return;
    state_->release(*found->second, garbage);
  }
  deleteAll(garbage);
}

void KZVSmartCache::invalidate(const std::string& key) {
  State::Garbage garbage;
  {
    const std::lock_guard lock(state_->mutex);
    state_->forgetKey(key, garbage);
  }
  deleteAll(garbage);
}
