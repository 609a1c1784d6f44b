#include "core/TemporaryFolders.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/DLog.h"
#include "core/KZVSupport.h"
#include "foundation/Paths.h"
#include "foundation/PrivateFiles.h"

namespace {

constexpr std::string_view lockSuffix = ".lock";

std::string lockName(const std::string& name) { return name + std::string(lockSuffix); }

bool refuse(NSErrorRef* error, int reason, const std::string& path) {
  setError(error, NSError::posix(reason, path));
  return false;
}

std::string newName() { return fmt::format("{}-{}", ::getpid(), KZVSupport::uniquePathComponent()); }

/// Whether newName() could have made it; other items in the folder are not ours.
bool isOwnName(std::string_view name) {
  const auto isOf = [](std::string_view text, std::string_view characters) {
    return text.find_first_not_of(characters) == std::string_view::npos;
  };
  const std::size_t dash = name.find('-');
  if (dash == 0 || dash == std::string_view::npos || !isOf(name.substr(0, dash), "0123456789")) return false;
  const std::string_view unique = name.substr(dash + 1);
  return unique.size() == KZVSupport::uniquePathComponent().size() && isOf(unique, "0123456789abcdef-");
}

using LockFile = FileLock::LockFile;
constexpr std::chrono::milliseconds noWaiting{0};

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

/// Removes the folder first and its lock file last, so that an interrupted removal is found at the next
/// start.
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
  // A program that cleans up old files may remove the folder of a long-running process.
  for (int attempt = 0; attempt < 2 && reason == ENOENT; ++attempt) {
    if (attempt > 0) own_.reset();
    if (!own_ && !makeProcessFolder(error)) return nullptr;
    const std::string name = KZVSupport::uniquePathComponent();
    const Descriptor holder(::openat(own_->root.descriptor().number(), own_->name.c_str(),
                                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (holder.isOpen() && ::mkdirat(holder.number(), name.c_str(), 0700) == 0)
      return NSURL::fileURLWithPath(appendingPathComponent(appendingPathComponent(root_, own_->name), name));
    reason = errno;
  }
  refuse(error, reason, appendingPathComponent(root_, own_->name));
  return nullptr;
}

/// Opens the root, which is created if it is missing and made private. A link is refused: it could lead
/// anywhere.
std::optional<OwnFolder> TemporaryFolders::prepareRoot(NSErrorRef* error) const {
  if (!makePrivateFolder(deletingLastPathComponent(root_), error)) return std::nullopt;
  if (::mkdir(root_.c_str(), 0700) != 0 && errno != EEXIST) {
    refuse(error, errno, root_);
    return std::nullopt;
  }
  auto root = OwnFolder::open(root_, error);
  if (root && ::fchmod(root->descriptor().number(), 0700) != 0) {
    refuse(error, errno, root_);
    return std::nullopt;
  }
  return root;
}

bool TemporaryFolders::makeProcessFolder(NSErrorRef* error) {
  auto root = prepareRoot(error);
  if (!root) return false;
  // Another process that cleans up may lock the file after we created it and before we could lock it; that
  // process will remove it, so another name is tried.
  constexpr int attempts = 20;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    std::string name = newName();
    FileLock lock(root->descriptor(), lockName(name), LockFile::createNew, noWaiting);
    const auto reason = lock.isHeld() ? 0 : lock.error()->code();
    if (reason == EWOULDBLOCK || reason == ENOENT || reason == EEXIST) continue;
    if (reason != 0)
      return refuse(error, static_cast<int>(reason), appendingPathComponent(root_, lockName(name)));
    if (const int failure = root->makeFolder(name)) {
      root->removeFile(lockName(name));
      return refuse(error, failure, appendingPathComponent(root_, name));
    }
    own_.emplace(Own{std::move(*root), std::move(name), std::move(lock)});
    return true;
  }
  return refuse(error, EBUSY, root_);
}

void TemporaryFolders::removeAbandoned() {
  const auto root = OwnFolder::open(root_);
  if (!root) return;  // missing, or another user's
  for (const std::string& name : processFolders(*root)) {
    const FileLock lock(root->descriptor(), lockName(name), LockFile::existing, noWaiting);
    if (lock.isHeld())
      removeLocked(*root, name);  // else its process is running, or another one is removing it
  }
}

void TemporaryFolders::removeOwn() {
  const std::lock_guard lock(mutex_);
  if (own_) removeLocked(own_->root, own_->name);
  own_.reset();
}
