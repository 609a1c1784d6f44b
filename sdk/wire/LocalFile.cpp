#include "sdk/wire/LocalFile.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <random>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "foundation/FileVersion.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/ReplacedFile.h"
#include "sdk/DBError.h"
#include "sdk/wire/ErrorReader.h"

namespace kzv::sdk {

namespace {

constexpr std::chrono::milliseconds reportInterval{20};

std::string randomName() {
  std::random_device random;
  std::string bytes(8, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return ".kzv-" + hexadecimal(bytes);
}

void syncFolder(const std::string& folder) {
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  ::fsync(descriptor);
  ::close(descriptor);
}

class ProgressMeter {
 public:
  ProgressMeter(std::shared_ptr<NSRunLoop> runLoop, std::function<void(double)> report)
      : runLoop_(std::move(runLoop)), shared_(std::make_shared<Shared>()) {
    shared_->report = std::move(report);
  }

  void reached(std::int64_t doneBytes, std::int64_t totalBytes) {
    const bool isLast = doneBytes >= totalBytes;
    const auto now = std::chrono::steady_clock::now();
    if (!isLast && now - lastReport_ < reportInterval) return;
    lastReport_ = now;
    shared_->fraction = isLast ? 1.0 : static_cast<double>(doneBytes) / static_cast<double>(totalBytes);
    if (shared_->isWaiting.exchange(true)) return;
    runLoop_->perform([shared = shared_] {
      shared->isWaiting = false;
      shared->report(shared->fraction);
    });
  }

 private:
  struct Shared {
    std::atomic<double> fraction{0};
    std::atomic<bool> isWaiting{false};
    std::function<void(double)> report;
  };
  const std::shared_ptr<NSRunLoop> runLoop_;
  const std::shared_ptr<Shared> shared_;
  std::chrono::steady_clock::time_point lastReport_{};
};

}  // namespace

ProgressReceiver progressReceiver(std::shared_ptr<NSRunLoop> runLoop, std::function<void(double)> report) {
  auto meter = std::make_shared<ProgressMeter>(std::move(runLoop), std::move(report));
  return [meter](std::int64_t done, std::int64_t total) { meter->reached(done, total); };
}

FileSink::FileSink(std::string target, LocalAccess access, ProgressReceiver progress,
                   AnnouncementReader announcement)
    : target_(std::move(target)),
      access_(access),
      progress_(std::move(progress)),
      announcement_(std::move(announcement)) {}

FileSink::~FileSink() {
  if (descriptor_ >= 0) ::close(descriptor_);
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

bool FileSink::fail(int errnoValue) {
  failure_ = NSError::posix(errnoValue, target_);
  return false;
}

bool FileSink::open() {
  const std::string folder = deletingLastPathComponent(target_);
  const mode_t mode = access_ == LocalAccess::ownerOnly ? 0600 : 0666;
  do {
    temporary_ = appendingPathComponent(folder, randomName());
    descriptor_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
  } while (descriptor_ < 0 && errno == EEXIST);
  if (descriptor_ >= 0) return true;
  temporary_.clear();
  return fail(errno);
}

/// Whether the disk has room for the announced body, counting the bytes of an earlier attempt as free. True
/// for disks that do not report their space (some virtual ones).
bool FileSink::hasRoom() const {
  struct statvfs disk {};
  if (::statvfs(deletingLastPathComponent(target_).c_str(), &disk) != 0 || disk.f_blocks == 0) return true;
  const auto blocks = static_cast<std::uint64_t>(announced_.sizeBytes) / disk.f_frsize;
  const auto ours = static_cast<std::uint64_t>(receivedBytes_) / disk.f_frsize;
  return !announced_.isExact || blocks <= disk.f_bfree + ours;
}

bool FileSink::begin(std::string_view result, std::optional<std::int64_t> sizeBytes) {
  auto announced = announcement_(result, &failure_);
  if (!announced) return false;
  announced_ = std::move(*announced);
  hasWrongLength_ = sizeBytes && announced_.isExact && *sizeBytes != announced_.sizeBytes;
  if (hasWrongLength_) return false;
  if (!hasRoom()) return fail(ENOSPC);
  if (descriptor_ < 0) {
    if (!open()) return false;
  } else if (::ftruncate(descriptor_, 0) != 0 || ::lseek(descriptor_, 0, SEEK_SET) != 0) {
    return fail(errno);
  }
  receivedBytes_ = 0;
  hash_ = ContentHash();
  return true;
}

bool FileSink::write(std::string_view bytes) {
  hasWrongLength_ = static_cast<std::int64_t>(bytes.size()) > announced_.sizeBytes - receivedBytes_;
  if (hasWrongLength_) return false;
  for (std::string_view rest = bytes; !rest.empty();) {
    const ssize_t count = ::write(descriptor_, rest.data(), rest.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return fail(errno);
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
  hash_.update(bytes);
  receivedBytes_ += static_cast<std::int64_t>(bytes.size());
  if (progress_ && announced_.isExact) progress_(receivedBytes_, announced_.sizeBytes);
  return true;
}

bool FileSink::isDamaged() {
  if (failure_) return false;
  hasWrongLength_ |= announced_.isExact && receivedBytes_ != announced_.sizeBytes;
  if (hasWrongLength_ || announced_.contentHash.empty()) return hasWrongLength_;
  return ContentHash(hash_).finish() != announced_.contentHash;
}

/// Failure is ignored: the bytes matter more than the date.
void FileSink::setModified(NSDate::Time modified) const {
  const auto whole = std::chrono::floor<std::chrono::seconds>(modified);
  const timespec time{whole.time_since_epoch().count(),
                      std::chrono::duration_cast<std::chrono::nanoseconds>(modified - whole).count()};
  const timespec times[2]{time, time};
  ::futimens(descriptor_, times);
}

bool FileSink::keep(std::optional<NSDate::Time> modified, NSErrorRef* error) {
  if (modified && descriptor_ >= 0) setModified(*modified);
  if (access_ == LocalAccess::byUmask) takePermissionsFrom(target_, descriptor_);
  const bool isDurable = descriptor_ >= 0 && ::fsync(descriptor_) == 0;
  const bool isClosed = descriptor_ >= 0 && ::close(std::exchange(descriptor_, -1)) == 0;
  if (!isDurable || !isClosed || !renameToTarget()) {
    setError(error, NSError::posix(errno, target_));
    return false;
  }
  temporary_.clear();
  syncFolder(deletingLastPathComponent(target_));
  return true;
}

/// Renames the file to its target. False with errno.
bool FileSink::renameToTarget() {
  const std::lock_guard lock(mutex_);
  if (isWithdrawn_) {
    errno = ECANCELED;
    return false;
  }
  // Remembers whether the file is new; disks that do not support RENAME_NOREPLACE replace without it.
  isNew_ = ::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) == 0;
  return isNew_ || ::rename(temporary_.c_str(), target_.c_str()) == 0;
}

void FileSink::withdraw() {
  const std::lock_guard lock(mutex_);
  isWithdrawn_ = true;
  if (isNew_) ::unlink(target_.c_str());
}

FileSource::FileSource(std::string path, int descriptor) : path_(std::move(path)), descriptor_(descriptor) {}

FileSource::~FileSource() { ::close(descriptor_); }

std::shared_ptr<FileSource> FileSource::open(const std::string& path, NSErrorRef* error) {
  const auto refuse = [&](int errnoValue) {
    setError(error, NSError::posix(errnoValue, path));
    return nullptr;
  };
  if (path.find('\0') != std::string::npos) return refuse(EINVAL);
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe must not block
  if (descriptor < 0) return refuse(errno);
  std::shared_ptr<FileSource> source(new FileSource(path, descriptor));
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return refuse(errno);
  if (!S_ISREG(status.st_mode)) return refuse(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  const auto version = fileVersion(descriptor, path, error);
  if (!version) return nullptr;
  source->version_ = *version;
  source->fileSizeBytes_ = status.st_size;
  source->sizeBytes_ = status.st_size;
  source->modificationDate_ = NSDate::Time(std::chrono::seconds(status.st_mtim.tv_sec));
  ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
  return source;
}

void FileSource::setSection(std::int64_t offset, std::int64_t sizeBytes, ContentHash hashBefore) {
  offset_ = offset;
  sizeBytes_ = sizeBytes;
  hashBefore_ = std::move(hashBefore);
  rewind();
}

void FileSource::setProgress(ProgressReceiver progress) { progress_ = std::move(progress); }

bool FileSource::rewind() {
  sentBytes_ = 0;
  hash_ = hashBefore_;
  return true;
}

std::ptrdiff_t FileSource::read(char* buffer, std::size_t capacity) {
  const std::int64_t rest = sizeBytes_ - sentBytes_;
  if (rest == 0) return 0;
  const auto wanted = std::min<std::size_t>(capacity, static_cast<std::size_t>(rest));
  const ssize_t count = readAt(offset_ + sentBytes_, buffer, wanted);
  if (count < 0) {
    failure_ = NSError::posix(errno, path_);
    return -1;
  }
  if (count == 0 || (count == rest && fileVersion(descriptor_, path_) != version_)) return failAsChanged();
  hash_.update({buffer, static_cast<std::size_t>(count)});
  sentBytes_ += count;
  if (progress_) progress_(sentBytes_, sizeBytes_);
  return count;
}

ssize_t FileSource::readAt(std::int64_t offset, char* buffer, std::size_t capacity) const {
  ssize_t count = 0;
  do {
    count = ::pread(descriptor_, buffer, capacity, offset);
  } while (count < 0 && errno == EINTR);
  return count;
}

std::ptrdiff_t FileSource::failAsChanged() {
  failure_ = requestError(DBErrorFileChanged, "the file changed during the upload", {"upload", path_});
  return -1;
}

std::optional<std::string> FileSource::hashOf(std::int64_t offset, std::int64_t sizeBytes) const {
  constexpr std::size_t pieceBytes = 256UL * 1024;
  std::string buffer(pieceBytes, '\0');
  ContentHash hash;
  for (std::int64_t done = 0; done < sizeBytes;) {
    const auto wanted = std::min<std::int64_t>(static_cast<std::int64_t>(pieceBytes), sizeBytes - done);
    const ssize_t count = readAt(offset + done, buffer.data(), static_cast<std::size_t>(wanted));
    if (count <= 0) return std::nullopt;
    hash.update({buffer.data(), static_cast<std::size_t>(count)});
    done += count;
  }
  return hash.finish();
}

}  // namespace kzv::sdk
