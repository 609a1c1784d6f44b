#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/FSPlugin.h"
#include "core/WriteBase.h"
#include "foundation/Descriptor.h"
#include "foundation/Mutex.h"
#include "foundation/NSDate.h"
#include "mount/journal/UploadJournal.h"

namespace kzv::mount {

/// What an upload based on `version` (empty: unknown) may replace.
WriteBase baseOf(const std::string& version);

/// The bytes of one file of a mount while it is open or its upload is pending: one version of the volume's
/// file while it is only read, a private file in the journal once it is written. Any thread; calls block for
/// the disk unless they say otherwise; errors are errno values, 0 for none.
///
/// A closed version whose upload failed is never overwritten: the next write goes to a copy, and the older
/// version stays pending until the newer one has been closed.
class FileContent {
 public:
  explicit FileContent(std::shared_ptr<UploadJournal> journal);
  FileContent(const FileContent&) = delete;
  FileContent& operator=(const FileContent&) = delete;
  /// Removes the private file unless the journal has an entry for it.
  ~FileContent();

  // Where the bytes come from.
  /// Whether there are bytes. Does not block.
  bool hasData() const { return hasData_; }
  /// Takes the bytes from `reader`, unless there are bytes already.
  void useReader(std::shared_ptr<FSReader> reader);
  /// Replaces all bytes by an empty private file, which is uploaded even if nothing is written.
  int makeEmpty(const WriteBase& base);
  /// Starts with an empty private file that is never uploaded. Later mounts show it, too, once record() has
  /// been called.
  int makeLocalOnly();
  /// Turns the bytes, which must be available, into a file that is never uploaded, and is kept and shown at
  /// `path` until it is removed. A pending upload is dropped.
  int keepLocal(const std::string& path);
  /// Takes over an entry that an earlier process left in the journal.
  int adopt(const UploadJournal::Upload& upload);
  int adopt(const UploadJournal::Local& local);

  // Reading and writing.
  /// Where the bytes can be read, for as long as this lives; both null: not available.
  struct Bytes {
    std::shared_ptr<const Descriptor> file;
    std::shared_ptr<FSReader> reader;
    bool areAvailable() const { return file || reader; }
    /// A local file that has all bytes; -1: only `reader` has them.
    int descriptor() const { return file ? file->number() : reader ? reader->localDescriptor() : -1; }
  };
  Bytes bytes() const;
  /// The size after the last change; 0 while there are no bytes. Does not block.
  std::uint64_t sizeBytes() const { return sizeBytes_; }
  /// Calls `put` to write to the private file, which is created first. Waits for an upload in flight.
  /// @param put  gets the file's descriptor and its size, which no other thread changes meanwhile; returns an
  /// errno value.
  int write(const std::function<int(int file, std::uint64_t sizeBytes)>& put);
  /// The private file's modification time; empty while there is none.
  std::optional<NSDate::Time> modified() const;
  /// Sets the modification time that is uploaded with the bytes.
  void setModified(NSDate::Time time);

  // Users. These do not block.
  enum class Access { read, write };
  void addUser(Access access);
  void removeUser(Access access);
  bool hasUsers() const;
  int writers() const;

  // Uploading.
  /// Whether there are local changes that the volume does not have. Does not block.
  bool isUnsent() const;
  /// Whether bytes were written or cut off since the last upload, or since an open truncated the file. Does
  /// not block.
  bool isWritten() const;
  /// Whether a thread waits for the file's upload to end. Does not block.
  bool hasWaiters() const;
  /// Counts as a waiter while it lives. `content` may be null.
  class Waiter {
   public:
    explicit Waiter(std::shared_ptr<FileContent> content);
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter();

   private:
    const std::shared_ptr<FileContent> content_;
  };
  /// Whether the file stays on this machine. Does not block.
  bool isLocalOnly() const;
  /// Waits until the bytes of a file that stays here are on the disk.
  int syncLocal() const;
  /// Whether the bytes are in the private file. Does not block.
  bool isPrivate() const { return isPrivate_; }
  /// Makes a local file one that is uploaded to `path`, in place of the version `base`.
  int sendFromNow(const WriteBase& base, const std::string& path);
  WriteBase base() const;
  void setBase(const WriteBase& base);

  /// One version that is being uploaded. Ended by endSending.
  struct Sending {
    std::string id;
    WriteBase base;
  };
  /// Empty when there is nothing to upload, or when `onlyClosed` and the file is open for writing. Waits for
  /// an upload in flight. Writers wait until endSending.
  std::optional<Sending> beginSending(bool onlyClosed);
  /// @param stored  the version that the volume has now; empty when the upload failed.
  void endSending(const std::optional<WriteBase>& stored);
  /// Where the volume stored the bytes because the name belonged to another version by then: later uploads go
  /// there. Empty: it did not.
  std::string elsewhere() const;
  void setElsewhere(const std::string& path);

  // The journal's entry.
  /// Records the closed bytes as a pending upload to `path`, in place of an older pending version; for a
  /// local file, that it is shown at `path`.
  /// @param reason  why an attempt to upload them failed; empty: as before.
  NSErrorRef record(const std::string& path, UploadJournal::Durability durability,
                    const std::string& reason = {});
  /// Changes the path of the recorded version, if there is one.
  NSErrorRef moveRecord(const std::string& path);
  bool isRecorded() const;
  /// Drops a pending upload: the file was removed or replaced.
  void discard();

 private:
  int makePrivate() KZV_REQUIRES(mutex_);
  int copyTo(const std::string& path, Descriptor& copy) const KZV_REQUIRES(mutex_);
  int copyBytes(int to) const KZV_REQUIRES(mutex_);
  int createData(std::string dataId) KZV_REQUIRES(mutex_);
  int takeFile(Descriptor file, const std::string& dataId) KZV_REQUIRES(mutex_);
  void noteSize() KZV_REQUIRES(mutex_);
  void dropRecord() KZV_REQUIRES(mutex_);
  void waitUntilSent(MutexLock& lock) KZV_REQUIRES(mutex_);
  std::string pathOf(const std::string& dataId) const;
  UploadJournal::Upload entryFor(const std::string& dataId, const std::string& path) KZV_REQUIRES(mutex_);

  const std::shared_ptr<UploadJournal> journal_;
  mutable Mutex mutex_;  // also held during disk I/O
  Condition changed_;
  std::shared_ptr<const Descriptor> data_ KZV_GUARDED_BY(mutex_);  // the private file
  std::shared_ptr<FSReader> reader_ KZV_GUARDED_BY(mutex_);        // while there is no private file
  std::string id_ KZV_GUARDED_BY(mutex_);                          // the private file's; empty: none
  std::string recordedId_ KZV_GUARDED_BY(mutex_);  // the version's that is in the journal; empty: none
  WriteBase base_ KZV_GUARDED_BY(mutex_);
  std::string elsewhere_ KZV_GUARDED_BY(mutex_);
  std::optional<NSDate::Time> pendingSince_ KZV_GUARDED_BY(mutex_);  // while an upload is pending
  std::string failure_ KZV_GUARDED_BY(mutex_);  // why the last attempt to upload them failed
  bool isSending_ KZV_GUARDED_BY(mutex_) = false;
  // Written under mutex_ (except the counts) and read without it, so that readers do not wait for the disk.
  std::atomic<std::uint64_t> sizeBytes_{0};
  std::atomic<bool> hasData_{false};
  std::atomic<bool> isPrivate_{false};
  std::atomic<bool> isLocalOnly_{false};
  std::atomic<bool> isUnsent_{false};
  std::atomic<bool> isWritten_{false};
  std::atomic<int> waiters_{0};
  std::atomic<int> readers_{0};
  std::atomic<int> writers_{0};
};

}  // namespace kzv::mount
