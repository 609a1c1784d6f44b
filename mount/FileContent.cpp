#include "mount/FileContent.h"

#include <cerrno>
#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include "core/LocalCopy.h"
#include "foundation/Fatal.h"
#include "mount/MountErrors.h"

namespace kzv::mount {

namespace {

constexpr mode_t privateFile = 0600;

int writeAll(int file, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return 0;
}

}  // namespace

WriteBase baseOf(const std::string& version) {
  return version.empty() ? WriteBase{} : WriteBase{WriteBase::Kind::revision, version};
}

FileContent::FileContent(std::shared_ptr<UploadJournal> journal) : journal_(std::move(journal)) {}

FileContent::~FileContent() {
  if (!id_.empty() && id_ != recordedId_) ::unlink(pathOf(id_).c_str());
}

std::string FileContent::pathOf(const std::string& dataId) const {
  return isLocalOnly_ ? journal_->localPath(dataId) : journal_->dataPath(dataId);
}

// --- Where the bytes come from

void FileContent::useReader(std::shared_ptr<FSReader> reader) {
  const MutexLock lock(mutex_);
  if (data_ || reader_) return;  // another open came first, and may have written
  base_ = baseOf(reader->version());
  sizeBytes_ = reader->size();
  reader_ = std::move(reader);
  hasData_ = true;
}

/// A new, empty private file under `dataId`.
int FileContent::createData(std::string dataId) {
  Descriptor file(::open(pathOf(dataId).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, privateFile));
  if (!file.isOpen()) return errno;
  const std::string before = std::exchange(id_, std::move(dataId));
  if (!before.empty() && before != recordedId_) ::unlink(pathOf(before).c_str());
  data_ = std::make_shared<const Descriptor>(std::move(file));
  sizeBytes_ = 0;
  hasData_ = isPrivate_ = true;
  return 0;
}

void FileContent::waitUntilSent(MutexLock& lock) {
  ++waiters_;
  changed_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return !isSending_; });
  --waiters_;
}

int FileContent::makeEmpty(const WriteBase& base) {
  std::shared_ptr<FSReader> unused;  // destroyed without the lock
  MutexLock lock(mutex_);
  waitUntilSent(lock);
  if (isLocalOnly_) {
    const int reason = ::ftruncate(data_->number(), 0) == 0 ? 0 : errno;
    noteSize();
    return reason;
  }
  if (const int reason = createData(journal_->newId())) return reason;
  // A pending upload replaces the version that it was based on; so do later writes.
  if (!isUnsent_) base_ = base;
  isUnsent_ = true;
  isWritten_ = false;
  unused = std::exchange(reader_, nullptr);
  return 0;
}

int FileContent::makeLocalOnly() {
  const MutexLock lock(mutex_);
  isLocalOnly_ = true;
  return createData(journal_->newId());
}

int FileContent::keepLocal(const std::string& path) {
  std::shared_ptr<FSReader> unused;  // destroyed without the lock
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return !isSending_; });
  std::string dataId = id_.empty() ? journal_->newId() : id_;
  const std::string localPath = journal_->localPath(dataId);
  Descriptor file;
  if (id_.empty()) {
    if (const int reason = copyTo(localPath, file)) return reason;
  } else {
    if (::link(journal_->dataPath(dataId).c_str(), localPath.c_str()) != 0) return errno;
    file = Descriptor(::open(localPath.c_str(), O_RDWR | O_CLOEXEC));
  }
  int reason = file.isOpen() ? 0 : errno;
  if (reason == 0) {
    const auto error = journal_->put(UploadJournal::Local{dataId, path}, UploadJournal::Durability::power);
    if (error) reason = errnoOf(error);
  }
  if (reason != 0) {
    ::unlink(localPath.c_str());
    return reason;
  }
  dropRecord();
  if (!id_.empty()) ::unlink(journal_->dataPath(id_).c_str());
  data_ = std::make_shared<const Descriptor>(std::move(file));
  hasData_ = isPrivate_ = true;
  noteSize();
  id_ = recordedId_ = std::move(dataId);
  isLocalOnly_ = true;
  isUnsent_ = false;
  isWritten_ = false;
  pendingSince_.reset();
  failure_.clear();
  unused = std::exchange(reader_, nullptr);
  return 0;
}

/// The file of a journal entry becomes the private file; errno when it could not be opened.
int FileContent::takeFile(Descriptor file, const std::string& dataId) {
  if (!file.isOpen()) return errno;
  data_ = std::make_shared<const Descriptor>(std::move(file));
  hasData_ = isPrivate_ = true;
  noteSize();
  id_ = recordedId_ = dataId;
  return 0;
}

int FileContent::adopt(const UploadJournal::Local& local) {
  const MutexLock lock(mutex_);
  const int reason =
      takeFile(Descriptor(::open(journal_->localPath(local.id).c_str(), O_RDWR | O_CLOEXEC)), local.id);
  isLocalOnly_ = reason == 0;
  return reason;
}

int FileContent::adopt(const UploadJournal::Upload& upload) {
  const MutexLock lock(mutex_);
  Descriptor file(::open(journal_->dataPath(upload.id).c_str(), O_RDWR | O_CLOEXEC));
  if (const int reason = takeFile(std::move(file), upload.id)) return reason;
  base_ = upload.base;
  pendingSince_ = upload.since;
  failure_ = upload.reason;
  isUnsent_ = true;
  isWritten_ = true;
  return 0;
}

// --- Reading and writing

FileContent::Bytes FileContent::bytes() const {
  const MutexLock lock(mutex_);
  return {data_, data_ ? nullptr : reader_};
}

void FileContent::noteSize() {
  struct stat status {};
  if (::fstat(data_->number(), &status) == 0) sizeBytes_ = static_cast<std::uint64_t>(status.st_size);
}

/// Copies all bytes of the reader.
int FileContent::copyBytes(int to) const {
  constexpr std::size_t stepBytes = std::size_t{1} << 20;
  std::vector<std::byte> buffer(stepBytes);
  for (std::uint64_t offset = 0;;) {
    NSErrorRef error;
    const auto count = reader_->read(offset, buffer, {}, &error);
    if (!count) return errnoOf(error);
    if (const int reason = writeAll(to, std::span(buffer).first(*count))) return reason;
    if (*count < buffer.size()) return 0;
    offset += *count;
  }
}

/// Copies the bytes to a new private file at `path`, which it opens as `copy`.
int FileContent::copyTo(const std::string& path, Descriptor& copy) const {
  if (!data_ && !reader_) fatalInvariant("copying a file requires its bytes to be available");
  const int from = data_ ? data_->number() : reader_->localDescriptor();
  int reason = 0;
  if (from >= 0) {
    // Through the descriptor: another version may be at the path by now.
    NSErrorRef error;
    const auto shouldContinue = [] { return true; };
    if (!copyLocalFile("/proc/self/fd/" + std::to_string(from), path, {.access = LocalAccess::ownerOnly},
                       shouldContinue, &error))
      return errnoOf(error);
  }
  Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, privateFile));
  if (!file.isOpen() || ::fchmod(file.number(), privateFile) != 0) reason = errno;
  if (reason == 0 && from < 0) reason = copyBytes(file.number());
  if (reason != 0) ::unlink(path.c_str());
  copy = std::move(file);
  return reason;
}

/// Makes sure that the bytes are in a private file that may be written to: a copy, unless they are in one
/// that is not a recorded pending upload.
int FileContent::makePrivate() {
  if (isLocalOnly_ || (!id_.empty() && id_ != recordedId_)) return 0;
  std::string dataId = journal_->newId();
  Descriptor file;
  if (const int reason = copyTo(pathOf(dataId), file)) return reason;
  data_ = std::make_shared<const Descriptor>(std::move(file));
  id_ = std::move(dataId);
  reader_.reset();
  isPrivate_ = true;
  return 0;
}

int FileContent::write(const std::function<int(int file, std::uint64_t sizeBytes)>& put) {
  MutexLock lock(mutex_);
  waitUntilSent(lock);
  if (const int reason = makePrivate()) return reason;
  isUnsent_ = !isLocalOnly_;
  isWritten_ = !isLocalOnly_;
  const int reason = put(data_->number(), sizeBytes_);
  noteSize();
  return reason;
}

std::optional<NSDate::Time> FileContent::modified() const {
  using namespace std::chrono;
  const MutexLock lock(mutex_);
  struct stat status {};
  if (id_.empty() || ::fstat(data_->number(), &status) != 0) return std::nullopt;
  return NSDate::Time(duration_cast<NSDate::Time::duration>(seconds(status.st_mtim.tv_sec) +
                                                            nanoseconds(status.st_mtim.tv_nsec)));
}

void FileContent::setModified(NSDate::Time time) {
  using namespace std::chrono;
  const MutexLock lock(mutex_);
  if (id_.empty()) return;
  const auto whole = floor<seconds>(time);
  const timespec value{whole.time_since_epoch().count(), duration_cast<nanoseconds>(time - whole).count()};
  const timespec times[2]{value, value};
  ::futimens(data_->number(), times);
}

// --- Users

void FileContent::addUser(Access access) { ++(access == Access::write ? writers_ : readers_); }

void FileContent::removeUser(Access access) { --(access == Access::write ? writers_ : readers_); }

bool FileContent::hasUsers() const { return readers_ + writers_ > 0; }

int FileContent::writers() const { return writers_; }

// --- Uploading

bool FileContent::isUnsent() const { return isUnsent_; }

bool FileContent::isWritten() const { return isWritten_; }

bool FileContent::hasWaiters() const { return waiters_ > 0; }

FileContent::Waiter::Waiter(std::shared_ptr<FileContent> content) : content_(std::move(content)) {
  if (content_) ++content_->waiters_;
}

FileContent::Waiter::~Waiter() {
  if (content_) --content_->waiters_;
}

bool FileContent::isLocalOnly() const { return isLocalOnly_; }

int FileContent::syncLocal() const {
  const Bytes current = bytes();
  return current.file && ::fdatasync(current.file->number()) != 0 ? errno : 0;
}

int FileContent::sendFromNow(const WriteBase& base, const std::string& path) {
  const MutexLock lock(mutex_);
  if (!isLocalOnly_) fatalInvariant("only a local file can start to be uploaded");
  // The old entry is removed once the new one exists: a process that dies in between leaves both.
  if (::link(journal_->localPath(id_).c_str(), journal_->dataPath(id_).c_str()) != 0) return errno;
  base_ = base;
  if (const auto error = journal_->put(entryFor(id_, path), UploadJournal::Durability::process)) {
    ::unlink(journal_->dataPath(id_).c_str());
    return errnoOf(error);
  }
  journal_->forgetLocal(id_);
  ::unlink(journal_->localPath(id_).c_str());
  recordedId_ = id_;
  isLocalOnly_ = false;
  isUnsent_ = true;
  isWritten_ = true;
  return 0;
}

WriteBase FileContent::base() const {
  const MutexLock lock(mutex_);
  return base_;
}

void FileContent::setBase(const WriteBase& base) {
  const MutexLock lock(mutex_);
  base_ = base;
}

std::optional<FileContent::Sending> FileContent::beginSending(bool onlyClosed) {
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return !isSending_; });
  if (!isUnsent_ || (onlyClosed && writers_ > 0)) return std::nullopt;
  isSending_ = true;
  return Sending{id_, base_};
}

void FileContent::endSending(const std::optional<WriteBase>& stored) {
  {
    const MutexLock lock(mutex_);
    isSending_ = false;
    if (stored) {
      isUnsent_ = false;
      isWritten_ = false;
      base_ = *stored;
      dropRecord();
      pendingSince_.reset();
      failure_.clear();
    }
  }
  changed_.notifyAll();
}

std::string FileContent::elsewhere() const {
  const MutexLock lock(mutex_);
  return elsewhere_;
}

void FileContent::setElsewhere(const std::string& path) {
  const MutexLock lock(mutex_);
  elsewhere_ = path;
}

// --- The journal's entry

UploadJournal::Upload FileContent::entryFor(const std::string& dataId, const std::string& path) {
  if (!pendingSince_) pendingSince_ = std::chrono::system_clock::now();
  return {dataId, path, base_, *pendingSince_, failure_};
}

NSErrorRef FileContent::record(const std::string& path, UploadJournal::Durability durability,
                               const std::string& reason) {
  const MutexLock lock(mutex_);
  if (!reason.empty()) failure_ = reason;
  if (isLocalOnly_) {
    if (NSErrorRef error = journal_->put(UploadJournal::Local{id_, path}, durability)) return error;
    recordedId_ = id_;
    return nullptr;
  }
  if (NSErrorRef error = journal_->put(entryFor(id_, path), durability)) return error;
  if (recordedId_ != id_) dropRecord();
  recordedId_ = id_;
  return nullptr;
}

NSErrorRef FileContent::moveRecord(const std::string& path) {
  const MutexLock lock(mutex_);
  if (recordedId_.empty()) return nullptr;
  if (isLocalOnly_)
    return journal_->put(UploadJournal::Local{recordedId_, path}, UploadJournal::Durability::process);
  return journal_->put(entryFor(recordedId_, path), UploadJournal::Durability::process);
}

bool FileContent::isRecorded() const {
  const MutexLock lock(mutex_);
  return !recordedId_.empty();
}

void FileContent::dropRecord() {
  if (recordedId_.empty()) return;
  if (isLocalOnly_) {
    journal_->forgetLocal(recordedId_);
  } else {
    journal_->forgetUpload(recordedId_);
  }
  if (recordedId_ != id_) ::unlink(pathOf(recordedId_).c_str());
  recordedId_.clear();
}

void FileContent::discard() {
  const MutexLock lock(mutex_);
  dropRecord();
  isUnsent_ = false;
  isWritten_ = false;
}

}  // namespace kzv::mount
