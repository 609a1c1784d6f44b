#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/LocalAccess.h"
#include "foundation/NSDate.h"
#include "foundation/NSError.h"
#include "foundation/NSRunLoop.h"
#include "sdk/wire/ContentHash.h"
#include "sdk/wire/HttpRequest.h"

namespace kzv::sdk {

/// Takes bytes done and bytes in all. Network thread.
using ProgressReceiver = std::function<void(std::int64_t, std::int64_t)>;

/// Forwards the progress of a transfer from the network thread to `runLoop` as fractions. Reports are dropped
/// while an earlier one is still pending and for some milliseconds after it, except the last one.
ProgressReceiver progressReceiver(std::shared_ptr<NSRunLoop> runLoop, std::function<void(double)> report);

/// What the answer's headers announce about its body.
struct AnnouncedBody {
  std::int64_t sizeBytes = 0;  // its length, or the maximum that is accepted
  bool isExact = false;        // which of the two
  std::string contentHash{};   // empty: unknown
};
/// Reads an answer's result header. Nothing, with the error, when the answer cannot be the service's; its
/// body is then ignored. Network thread.
using AnnouncementReader =
    std::function<std::optional<AnnouncedBody>(std::string_view result, NSErrorRef* error)>;

/// Receives a body into a file that gets its name only once it is complete: the bytes are written to a
/// temporary file beside it, which is removed unless keep() succeeds. Accepts no more bytes than were
/// announced.
class FileSink final : public BodySink {
 public:
  /// @param target  an absolute path that names a file; its folder has to exist.
  FileSink(std::string target, LocalAccess access, ProgressReceiver progress,
           AnnouncementReader announcement);
  ~FileSink() override;
  bool begin(std::string_view result, std::optional<std::int64_t> sizeBytes) override;
  bool write(std::string_view bytes) override;
  bool isDamaged() override;

  /// Why begin or write failed; null if they did not.
  const NSErrorRef& failure() const noexcept { return failure_; }
  /// Makes the file durable and gives it its modification date, if there is one, and its name, replacing what
  /// was there. Blocks for the disk; call after the transfer has ended.
  bool keep(std::optional<NSDate::Time> modified, NSErrorRef* error);
  /// Makes keep(), which may be running, leave no file; but if it has already replaced another file, the new
  /// one stays, so that the user does not lose both. Any thread.
  void withdraw();

 private:
  bool takeName();
  bool open();
  bool fail(int errnoValue);
  bool hasRoom() const;
  void setModified(NSDate::Time modified) const;

  const std::string target_;
  const LocalAccess access_;
  const ProgressReceiver progress_;
  const AnnouncementReader announcement_;
  std::string temporary_;
  int descriptor_ = -1;
  AnnouncedBody announced_;
  bool isOtherLength_ = false;  // than was announced
  std::int64_t receivedBytes_ = 0;
  ContentHash hash_;
  NSErrorRef failure_;

  std::mutex mutex_;
  bool isNew_ = false;        // guarded by mutex_: has its name, and replaced nothing
  bool isWithdrawn_ = false;  // guarded by mutex_
};

/// Sends a section of one version of a regular file. If the file changes between open() and the last byte,
/// that byte is withheld, so that the request never becomes complete.
class FileSource final : public BodySource {
 public:
  /// Opens the file; blocks for the disk. Null with `error` when it cannot be opened or is no regular file.
  static std::shared_ptr<FileSource> open(const std::string& path, NSErrorRef* error);
  ~FileSource() override;

  std::int64_t fileSizeBytes() const noexcept { return fileSizeBytes_; }
  NSDate::Time modificationDate() const noexcept { return modificationDate_; }
  /// What is sent; at first the whole file. `hashBefore` is the content hash of what lies before `offset`.
  void setSection(std::int64_t offset, std::int64_t sizeBytes, ContentHash hashBefore);
  void setProgress(ProgressReceiver progress);
  /// The content hash of a section, read beside what is being sent; nothing when it cannot be read. Any
  /// thread; blocks for the disk.
  std::optional<std::string> hashOf(std::int64_t offset, std::int64_t sizeBytes) const;

  std::int64_t sizeBytes() const override { return sizeBytes_; }
  bool rewind() override;
  std::ptrdiff_t read(char* buffer, std::size_t capacity) override;

  /// Why read failed; null if it did not.
  const NSErrorRef& failure() const noexcept { return failure_; }
  bool isSent() const noexcept { return sentBytes_ == sizeBytes_; }
  /// The hash up to the end of what has been sent.
  const ContentHash& hash() const noexcept { return hash_; }

 private:
  FileSource(std::string path, int descriptor);
  ssize_t readAt(std::int64_t offset, char* buffer, std::size_t capacity) const;
  std::ptrdiff_t failAsChanged();

  const std::string path_;
  const int descriptor_;
  std::string version_;  // as fileVersion tells it
  std::int64_t fileSizeBytes_ = 0;
  NSDate::Time modificationDate_;
  std::int64_t offset_ = 0;
  std::int64_t sizeBytes_ = 0;
  std::int64_t sentBytes_ = 0;
  ContentHash hashBefore_;
  ContentHash hash_;
  ProgressReceiver progress_;
  NSErrorRef failure_;
};

}  // namespace kzv::sdk
