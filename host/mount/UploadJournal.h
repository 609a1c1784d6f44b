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

/// What one account's mounts must not lose: files that were closed and that the service is not known to have,
/// files that are never sent, and renames that have set something aside. One folder an account, below the
/// state folder (mode 0700, files 0600), held by one process at a time:
///
///   lock            held while mounted; says where
///   pending/ID.data a file's bytes, while it is open for writing or waits
///   pending/ID.json {"path":…, "base":"nothing"|"latest"|"revision", "revision":…, "since":seconds since
///   1970,
///                    "reason":…}: it was closed, and why the last attempt to send it failed
///   renames/ID.json {"from":…, "to":…, "aside":…}: `from` goes to `to`; what was there lies at `aside`
///   local/ID.data   the bytes of a file that stays on this machine
///   local/ID.json   {"path":…}: where it is shown
///
/// Any thread. Calls block for the disk; one that fails says why in NSPOSIXErrorDomain.
class UploadJournal {
 public:
  struct Upload {
    std::string id;
    std::string path;  // on the volume
    WriteBase base;
    NSDate::Time since{};  // when it began to wait
    std::string reason;    // why the last attempt to send it failed, for people; empty: none has yet
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

  /// Opens the account's journal, making its folder; null with an error when another process has it (EBUSY,
  /// and where that one is mounted) or the disk refuses.
  static std::unique_ptr<UploadJournal> open(const std::string& accountId, const std::string& mountpoint,
                                             NSErrorRef* error);
  /// Where the account is mounted now, or was last; empty when it never was.
  static std::string mountpointOf(const std::string& accountId);
  /// A file that waits to be sent.
  struct Waiting {
    Upload upload;         // no path when the entry is damaged
    std::string dataPath;  // where its bytes are
    std::uint64_t sizeBytes = 0;
    bool isDamaged = false;  // its entry cannot be read, so that it is never sent
  };
  /// What one account's journal holds, whoever has it open.
  struct State {
    std::string accountId;
    std::string folder;            // where the waiting files' bytes are
    std::string mountpoint;        // where it is mounted now, or was last
    bool isMounted = false;        // a process holds the journal
    /// The files that wait to be sent, oldest first, then those that stay here and have a damaged entry.
    std::vector<Waiting> waiting;
  };
  /// Whether a process holds the account's journal.
  static bool isMounted(const std::string& accountId);
  static State stateOf(const std::string& accountId);
  /// Of all accounts that were ever mounted, in the order of their ids.
  static std::vector<State> states();

  /// What earlier processes left, oldest first. The first two also remove bytes that belong to no entry.
  std::vector<Upload> uploads();
  std::vector<Local> locals();
  std::vector<Rename> renames();

  /// Names a new file of bytes, in the order of time. It does not exist yet.
  std::string newId();
  std::string dataPath(const std::string& entryId) const;
  std::string localPath(const std::string& entryId) const;
  /// Bytes that the journal's disk has left for this user; nothing when it does not say.
  std::optional<std::uint64_t> freeBytes() const;

  enum class Durability {
    process,  // survives the death of this process
    power     // survives a power cut, too: bytes and entry are on the disk
  };
  /// Notes that the file whose bytes lie at dataPath(id) is to be stored; an entry of that id is replaced.
  NSErrorRef put(const Upload& upload, Durability durability);
  /// Notes that the file whose bytes lie at localPath(id) is to be kept; an entry of that id is replaced.
  NSErrorRef put(const Local& local, Durability durability);
  NSErrorRef put(const Rename& rename);
  /// Forgets the upload; its bytes stay.
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
