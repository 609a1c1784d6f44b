#pragma once
#include <chrono>
#include <memory>

#include "mount/FolderRefresher.h"
#include "mount/Lookups.h"
#include "mount/MountParts.h"
#include "mount/OpenFiles.h"
#include "mount/Rename.h"
#include "mount/SpaceGauge.h"
#include "mount/TreeChanges.h"

namespace kzv::mount {

/// A volume as a tree of numbered nodes with the operations that a kernel asks for: everything about a
/// mounted account but the kernel's own protocol. Talks to the account through FSPlugin and nothing else.
///
/// Which names are equal is for the volume to say. A file is uploaded when its last writer closes it; until
/// the volume has it, it is in the journal, from which it is uploaded again, by this process or the next.
/// What another device changed is never overwritten: the volume keeps both versions. Folders that were shown
/// are watched, and listed again when they change. A file's new version gets a node of its own while the
/// older one is open, as if it had been renamed over it: the kernel's caches then hold one version a node,
/// and an open file keeps its version.
///
/// Threads: any, but not the main thread. Operations block until the volume has answered; only those that
/// change the tree wait for each other, and only where their paths meet (PathLocks). Errors are errno values:
/// ENOENT, EEXIST, ENOTDIR, EISDIR, ENOTEMPTY, EINVAL and ENAMETOOLONG (names that the volume cannot hold),
/// EACCES (also: the account is not linked any more), ENOSPC, EINTR, EBUSY (the service asks to wait), EIO
/// (no connection), ESTALE (the name means another node now: look again).
class MountedVolume {
 public:
  /// @param kernel  is called as long as this lives.
  /// @param isLinked  asked when the volume fails without a reason; must not block. Empty: it always is.
  MountedVolume(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal, KernelCache& kernel,
                LinkSource links, IsLinked isLinked = {}, const MountDelays& delays = {});
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;
  /// Ends the threads and watches; what has not been uploaded stays in the journal.
  ~MountedVolume();

  /// Finishes renames that were interrupted, reads what earlier processes left in the journal, and begins to
  /// upload it in the background. Blocks until the volume has answered, if there are such renames.
  void start();
  /// Uploads what waits, at most until `patience` has passed. False when something still waits.
  bool flushJournal(std::chrono::milliseconds patience) { return parts_.queue.flush(patience); }
  /// Ends waiting operations: the mount is going away. Does not block.
  void stop();

  Lookups& lookups() { return lookups_; }
  OpenFiles& files() { return files_; }
  TreeChanges& changes() { return changes_; }
  int rename(const Rename::Request& request, const IsInterrupted& isInterrupted) {
    return Rename::run(parts_, lookups_, changes_, request, isInterrupted);
  }
  SpaceGauge& space() { return space_; }

 private:
  MountParts parts_;
  Lookups lookups_;
  OpenFiles files_{parts_, lookups_};
  TreeChanges changes_{parts_, lookups_};
  SpaceGauge space_;
  FolderRefresher refresher_;
};

}  // namespace kzv::mount
