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

/// Receives the bytes done and the total. Called on the network thread.
using ProgressReceiver = std::function<void(std::int64_t, std::int64_t)>;

/// Forwards the progress of a transfer from the network thread to `runLoop` as fractions. Reports are dropped
/// while an earlier one is still pending and for some milliseconds after it, except the last one.
ProgressReceiver progressReceiver(std::shared_ptr<NSRunLoop> runLoop, std::function<void(double)> report);

/// What the answer's headers announce about its body.
struct AnnouncedBody {
  std::int64_t sizeBytes = 0;  // the length, or the accepted maximum
  bool isExact = false;        // whether it is the length
  std::string contentHash{};   // empty: unknown
};
/// Parses an answer's result header. Nothing, with an error, when the answer cannot be the service's; its
/// body is then ignored. Called on the network thread.
using AnnouncementReader =
    std::function<std::optional<AnnouncedBody>(std::string_view result, NSErrorRef* error)>;

/// Writes a body to a temporary file beside the target, which keep() renames once it is complete; otherwise
/// it is removed. Accepts no more bytes than announced.
class FileSink final : public BodySink {
 public:
  /// @param target  an absolute path of a file; its folder must exist.
  FileSink(std::string target, LocalAccess access, ProgressReceiver progress,
           AnnouncementReader announcement);
  ~FileSink() override;
  bool begin(std::string_view result, std::optional<std::int64_t> sizeBytes) override;
  bool write(std::string_view bytes) override;
  bool isDamaged() override;

  /// Why begin or write failed; null if they did not.
  const NSErrorRef& failure() const noexcept { return failure_; }
  /// Syncs the file, sets its modification date, if given, and renames it to the target, replacing an
  /// existing file. Blocks for the disk; call after the transfer has ended.
  bool keep(std::optional<NSDate::Time> modified, NSErrorRef* error);
  /// Undoes keep(), which may be running: removes the file, unless it has already replaced another one, so
  /// that the user does not lose both. Any thread.
  void withdraw();

 private:
  bool renameToTarget();
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
  bool hasWrongLength_ = false;  // than was announced
  std::int64_t receivedBytes_ = 0;
  ContentHash hash_;
  NSErrorRef failure_;

  std::mutex mutex_;
  bool isNew_ = false;        // guarded by mutex_: renamed, and replaced no file
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
  /// Sets the section to send; initially the whole file. `hashBefore` is the content hash of the bytes before
  /// `offset`.
  void setSection(std::int64_t offset, std::int64_t sizeBytes, ContentHash hashBefore);
  void setProgress(ProgressReceiver progress);
  /// The content hash of a section; nothing when it cannot be read. Does not affect read(). Any thread;
  /// blocks for the disk.
  std::optional<std::string> hashOf(std::int64_t offset, std::int64_t sizeBytes) const;

  std::int64_t sizeBytes() const override { return sizeBytes_; }
  bool rewind() override;
  std::ptrdiff_t read(char* buffer, std::size_t capacity) override;

  /// Why read failed; null if it did not.
  const NSErrorRef& failure() const noexcept { return failure_; }
  bool isSent() const noexcept { return sentBytes_ == sizeBytes_; }
  /// The hash up to the end of the sent bytes.
  const ContentHash& hash() const noexcept { return hash_; }

 private:
  FileSource(std::string path, int descriptor);
  ssize_t readAt(std::int64_t offset, char* buffer, std::size_t capacity) const;
  std::ptrdiff_t failAsChanged();

  const std::string path_;
  const int descriptor_;
  std::string version_;  // from fileVersion()
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
