#include "core/TemporaryFolders.h"

#include <algorithm>
#include <cerrno>
#include <utility>

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

std::string lockName(const std::string& name) { return name + std::string(lockSuffix); }

bool refuse(NSErrorRef* error, int reason, const std::string& path) {
  setError(error, NSError::posix(reason, path));
  return false;
}

std::string newName() { return fmt::format("{}-{}", ::getpid(), KZVSupport::uniquePathComponent()); }

/// Whether newName() could have made it: anything else in the folder is somebody else's.
bool isOwnName(std::string_view name) {
  const auto isOf = [](std::string_view text, std::string_view characters) {
    return text.find_first_not_of(characters) == std::string_view::npos;
  };
  const std::size_t dash = name.find('-');
  if (dash == 0 || dash == std::string_view::npos || !isOf(name.substr(0, dash), "0123456789")) return false;
  const std::string_view unique = name.substr(dash + 1);
  return unique.size() == KZVSupport::uniquePathComponent().size() && isOf(unique, "0123456789abcdef-");
}

/// Takes the lock of that name without waiting and returns its descriptor, or none with errno. `flags` is
/// added to what open() gets. A lock file that somebody removed between our opening and our locking counts as
/// gone: its lock protects nothing.
Descriptor takeLock(const OwnFolder& root, const std::string& name, int flags) {
  constexpr int usual = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
  Descriptor file(::openat(root.descriptor(), name.c_str(), usual | flags, 0600));
  if (!file.isOpen()) return file;
  struct stat opened {};
  int reason = 0;
  if (::flock(file.number(), LOCK_EX | LOCK_NB) != 0 || ::fstat(file.number(), &opened) != 0) {
    reason = errno;
  } else if (opened.st_nlink == 0 || !S_ISREG(opened.st_mode)) {
    reason = ENOENT;
  }
  if (reason == 0) return file;
  file.close();
  errno = reason;
  return {};
}

/// The names of the process folders in `root`.
std::vector<std::string> processFolders(const OwnFolder& root) {
  std::vector<std::string> names;
  for (const std::string& name : root.names()) {
    if (!name.ends_with(lockSuffix)) continue;
    std::string folder = name.substr(0, name.size() - lockSuffix.size());
    if (isOwnName(folder)) names.push_back(std::move(folder));
  }
  return names;
}

/// The folder first, its lock file last: one that was cut off half-way is found again at the next start.
void removeLocked(const OwnFolder& root, const std::string& name) {
  const int reason = root.removeTree(name);
  if (reason == 0 || reason == ENOENT) {
    root.removeFile(lockName(name));
  } else {
    DLog(NSError::posix(reason, name)->localizedDescription(), "TemporaryFolders::removeLocked");
  }
}

}  // namespace

TemporaryFolders::TemporaryFolders(std::string root) : root_(std::move(root)) {}

TemporaryFolders::~TemporaryFolders() { removeOwn(); }

std::shared_ptr<NSURL> TemporaryFolders::makeFolder(NSErrorRef* error) {
  const std::lock_guard lock(mutex_);
  int reason = ENOENT;
  // A system that cleans up old files may take a process's folder away while the process lives on for weeks.
  for (int attempt = 0; attempt < 2 && reason == ENOENT; ++attempt) {
    if (attempt > 0) own_.reset();
    if (!own_ && !makeProcessFolder(error)) return nullptr;
    const std::string name = KZVSupport::uniquePathComponent();
    const Descriptor holder(::openat(own_->root.descriptor(), own_->name.c_str(),
                                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (holder.isOpen() && ::mkdirat(holder.number(), name.c_str(), 0700) == 0)
      return NSURL::fileURLWithPath(appendingPathComponent(appendingPathComponent(root_, own_->name), name));
    reason = errno;
  }
  refuse(error, reason, appendingPathComponent(root_, own_->name));
  return nullptr;
}

/// The root, made if it is missing and closed to others. A link in its place would lead wherever somebody
/// else wants our files to go.
std::optional<OwnFolder> TemporaryFolders::prepareRoot(NSErrorRef* error) const {
  const std::string parent = deletingLastPathComponent(root_);
  if (!NSFileManager::defaultManager().createDirectoryAtPath(parent, true, error)) return std::nullopt;
  if (::mkdir(root_.c_str(), 0700) != 0 && errno != EEXIST) {
    refuse(error, errno, root_);
    return std::nullopt;
  }
  auto root = OwnFolder::open(root_, error);
  if (root && ::fchmod(root->descriptor(), 0700) != 0) {
    refuse(error, errno, root_);
    return std::nullopt;
  }
  return root;
}

bool TemporaryFolders::makeProcessFolder(NSErrorRef* error) {
  auto root = prepareRoot(error);
  if (!root) return false;
  // Another process that cleans up may take the lock between our making the file and our locking it; then
  // that name is its to remove, and we take another.
  constexpr int attempts = 20;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    std::string name = newName();
    Descriptor lock = takeLock(*root, lockName(name), O_CREAT | O_EXCL);
    if (!lock.isOpen() && (errno == EWOULDBLOCK || errno == ENOENT || errno == EEXIST)) continue;
    if (!lock.isOpen()) return refuse(error, errno, appendingPathComponent(root_, lockName(name)));
    if (const int reason = root->makeFolder(name)) {
      root->removeFile(lockName(name));
      return refuse(error, reason, appendingPathComponent(root_, name));
    }
    own_.emplace(Own{std::move(*root), std::move(name), std::move(lock)});
    return true;
  }
  return refuse(error, EBUSY, root_);
}

void TemporaryFolders::removeAbandoned() {
  const auto root = OwnFolder::open(root_);
  if (!root) return;  // none was ever made, or what is there is not ours
  for (const std::string& name : processFolders(*root)) {
    const Descriptor lock = takeLock(*root, lockName(name), 0);
    if (lock.isOpen()) removeLocked(*root, name);  // else its process lives, or somebody else is removing it
  }
}

void TemporaryFolders::removeOwn() {
  const std::lock_guard lock(mutex_);
  if (own_) removeLocked(own_->root, own_->name);
  own_.reset();
}
