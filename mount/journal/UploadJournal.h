#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/WriteBase.h"
#include "foundation/Descriptor.h"
#include "foundation/NSDate.h"
#include "foundation/NSError.h"

namespace kzv::mount {

/// State of a mount that must survive the process: pending uploads, files that are never uploaded, and
/// unfinished renames. One folder per account, below the state folder (mode 0700, files 0600), locked by one
/// process at a time:
///
///   lock             locked while mounted; holds the mountpoint
///   pending/ID.data  a file's bytes while it is open for writing or its upload is pending
///   pending/ID.json  {"path":..., "base":"nothing"|"latest"|"revision", "revision":..., "since":SECONDS,
///                    "reason":...}: a closed file whose upload is pending; `since` in seconds since 1970,
///                    `reason` of the last failure
///   renames/ID.json  {"from":..., "to":..., "aside":...}: `from` is being moved to `to`; the item that was
///                    there is at `aside`
///   local/ID.data    the bytes of a file that stays on this machine
///   local/ID.json    {"path":...}: where it is shown
///
/// Any thread. Calls block for the disk; failures are in NSPOSIXErrorDomain.
class UploadJournal {
 public:
  struct Upload {
    std::string id;
    std::string path;  // on the volume
    WriteBase base;
    NSDate::Time since{};  // when it became pending
    std::string reason;    // why the last attempt failed, for people; empty: none has
  };
  /// A file that stays on this machine until it is removed.
  struct Local {
    std::string id;
    std::string path;  // on the volume
  };
  struct Rename {
    std::string id;
    std::string from;
    std::string to;
    std::string aside;
  };

  /// Opens the account's journal, creating its folder; null with an error when another process has it open
  /// (EBUSY; the text names its mountpoint) or the disk fails.
  static std::unique_ptr<UploadJournal> open(const std::string& accountId, const std::string& mountpoint,
                                             NSErrorRef* error);
  /// Where the account is mounted now, or was last; empty when it never was.
  static std::string mountpointOf(const std::string& accountId);
  /// A file whose upload is pending.
  struct Waiting {
    Upload upload;         // no path when the entry is damaged
    std::string dataPath;  // its bytes
    std::uint64_t sizeBytes = 0;
    bool isDamaged = false;  // its entry cannot be read, so it is never uploaded
  };
  /// What one account's journal holds, whichever process has it open.
  struct State {
    std::string accountId;
    std::string folder;      // with the bytes of pending uploads
    std::string mountpoint;  // where it is mounted now, or was last
    bool isMounted = false;  // a process has the journal open
    /// Pending uploads, oldest first, then local files with a damaged entry.
    std::vector<Waiting> waiting;
  };
  /// Whether a process has the account's journal open.
  static bool isMounted(const std::string& accountId);
  static State stateOf(const std::string& accountId);
  /// Of all accounts that were ever mounted, ordered by id.
  static std::vector<State> states();

  /// Entries of earlier processes, oldest first. The first two also remove bytes that belong to no entry.
  std::vector<Upload> uploads();
  std::vector<Local> locals();
  std::vector<Rename> renames();

  /// An id for a new entry or file of bytes; ids sort by time.
  std::string newId();
  std::string dataPath(const std::string& entryId) const;
  std::string localPath(const std::string& entryId) const;
  /// Free bytes on the journal's disk for this user; nothing when unknown.
  std::optional<std::uint64_t> freeBytes() const;

  enum class Durability {
    process,  // survives the end of this process
    power     // survives a power failure, too: bytes and entry are on the disk
  };
  /// Records that the file whose bytes are at dataPath(id) is to be uploaded; replaces an entry of that id.
  NSErrorRef put(const Upload& upload, Durability durability);
  /// Records that the file whose bytes are at localPath(id) is to be kept; replaces an entry of that id.
  NSErrorRef put(const Local& local, Durability durability);
  NSErrorRef put(const Rename& rename);
  /// Removes the entry of the upload; its bytes stay.
  void forgetUpload(const std::string& entryId);
  void forgetLocal(const std::string& entryId);
  void forgetRename(const std::string& entryId);

 private:
  UploadJournal(std::string folder, Descriptor lock);
  static NSErrorRef writeEntry(const std::string& path, const std::string& dataPath, const std::string& text,
                               Durability durability);

  const std::string folder_;
  const Descriptor lock_;
};

}  // namespace kzv::mount
