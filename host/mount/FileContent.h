#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/FSPlugin.h"
#include "core/WriteBase.h"
#include "foundation/Descriptor.h"
#include "foundation/NSDate.h"
#include "host/mount/UploadJournal.h"

/// What a file that is made from `version` (empty: not known) may replace.
WriteBase baseOf(const std::string& version);

/// The bytes of one file of a mount, while it is open or waits to be sent: one version of the volume's file
/// while they are only read, a private file once they are written. Any thread; errors are errno values, 0 for
/// none.
///
/// A version that was closed and could not be sent is never written over: the next write works on a copy, and
/// the older version waits until the newer one has been closed.
class FileContent {
 public:
  FileContent(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal);
  FileContent(const FileContent&) = delete;
  FileContent& operator=(const FileContent&) = delete;
  /// The private file goes unless it waits in the journal.
  ~FileContent();

  // Making.
  /// Never blocks.
  bool hasData() const { return hasData_; }
  /// Shows what `reader` reads, unless there are bytes already.
  void useReader(std::shared_ptr<FSReader> reader);
  /// An empty private file in place of whatever there was, to be sent even if nothing is written.
  int makeEmpty(const WriteBase& base);
  /// An empty private file that is never sent. It is kept over mounts from the first record() on.
  int makeLocalOnly();
  /// The bytes, which must be at hand, become a file that is never sent, kept and shown at `path` until it is
  /// removed. What waited to be sent waits no more.
  int keepLocal(const std::string& path);
  /// Takes over what an earlier process left in the journal.
  int adopt(const UploadJournal::Upload& upload);
  int adopt(const UploadJournal::Local& local);

  // Bytes.
  /// Where the bytes can be read, for as long as this lives. Neither: they are not at hand.
  struct Bytes {
    std::shared_ptr<const Descriptor> file;
    std::shared_ptr<FSReader> reader;
    bool areAtHand() const { return file || reader; }
    /// Of a local file that holds them all, or -1: `reader` alone has them.
    int descriptor() const { return file ? file->number() : reader ? reader->localDescriptor() : -1; }
  };
  Bytes bytes() const;
  /// The size as the last change left it. Never blocks; 0 while there are no bytes.
  std::uint64_t sizeBytes() const { return sizeBytes_; }
  /// Lets `put` write into the private file, which is made first. Blocks while the bytes are being sent.
  /// @param put  gets the file and its size in bytes, which nobody else changes meanwhile.
  int write(const std::function<int(int file, std::uint64_t sizeBytes)>& put);
  /// When the private file was changed last; nothing while there is none.
  std::optional<NSDate::Time> modified() const;
  /// The time that goes along when the bytes are sent.
  void setModified(NSDate::Time time);

  // Users.
  enum class Access { read, write };
  void addUser(Access access);
  void removeUser(Access access);
  bool hasUsers() const;
  int writers() const;

  // Sending.
  bool isUnsent() const;
  /// Whether bytes were written (or cut off) since the last sending, or since it was emptied by an open.
  bool isWritten() const;
  /// Whether somebody would rather write than wait for a sending in the background.
  bool isWanted() const;
  /// While it lives, somebody would rather have the file than have it sent. `content` may be empty.
  class Wish {
   public:
    explicit Wish(std::shared_ptr<FileContent> content);
    Wish(const Wish&) = delete;
    Wish& operator=(const Wish&) = delete;
    ~Wish();

   private:
    const std::shared_ptr<FileContent> content_;
  };
  bool isLocalOnly() const;
  /// Waits until the bytes of a file that stays here are on the disk.
  int syncLocal() const;
  /// Whether the bytes lie in the private file, which the volume does not keep.
  bool isPrivate() const { return isPrivate_; }
  /// A file that stayed here is to be sent to `path` from now on, in place of the version `base`.
  int sendFromNow(const WriteBase& base, const std::string& path);
  WriteBase base() const;
  void setBase(const WriteBase& base);

  /// One version on its way. Ended by endSending.
  struct Sending {
    std::string id;
    WriteBase base;
  };
  /// Nothing when there is nothing to send, or `onlyClosed` and somebody has it open for writing. Waits for a
  /// sending under way. Until endSending, writers wait.
  std::optional<Sending> beginSending(bool onlyClosed);
  /// @param stored  the version that the service has now, or nothing when it failed.
  void endSending(const std::optional<WriteBase>& stored);
  /// Where the service put the bytes when the name had become another version's: there they go from then on.
  /// Empty: nowhere else.
  std::string elsewhere() const;
  void setElsewhere(const std::string& path);
  /// Notes in the journal that these bytes, which were closed, are to be stored at `path`, in place of an
  /// older version that waited; of a file that stays here, that it is shown at `path`.
  /// @param reason  why an attempt to send them failed; empty: as before.
  NSErrorRef record(const std::string& path, UploadJournal::Durability durability,
                    const std::string& reason = {});
  /// The version that the journal knows, if there is one, belongs to `path` now.
  NSErrorRef moveRecord(const std::string& path);
  /// Whether a version waits in the journal.
  bool isRecorded() const;
  /// The file is gone, or has another's place: nothing is sent any more.
  void discard();

 private:
  int makePrivate();
  int copyTo(const std::string& path, Descriptor& copy) const;
  int copyBytes(int to) const;
  int createData(std::string dataId);
  void noteSize();
  void dropRecorded();
  std::string pathOf(const std::string& dataId) const;
  UploadJournal::Upload entryFor(const std::string& dataId, const std::string& path);

  const std::shared_ptr<FSPlugin> volume_;
  const std::shared_ptr<UploadJournal> journal_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // All guarded by mutex_, which is held while the disk works. What others look at in passing is atomic, so
  // that they need not wait for that.
  std::shared_ptr<const Descriptor> data_;  // the private file
  std::shared_ptr<FSReader> reader_;        // while there is no private file
  std::string id_;                          // of the private file; empty: none
  std::string recordedId_;                  // of the version that the journal knows; empty: none
  WriteBase base_;
  std::string elsewhere_;
  std::optional<NSDate::Time> waitsSince_;  // while unsent bytes are in the journal
  std::string reason_;                      // why the last attempt to send them failed
  bool isSending_ = false;
  std::atomic<std::uint64_t> sizeBytes_{0};
  std::atomic<bool> hasData_{false};
  std::atomic<bool> isPrivate_{false};
  std::atomic<bool> isLocalOnly_{false};
  std::atomic<bool> isUnsent_{false};
  std::atomic<bool> isWritten_{false};
  std::atomic<int> wishes_{0};
  std::atomic<int> readers_{0};
  std::atomic<int> writers_{0};
};
