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

/// A volume as a tree of numbered nodes with the operations of a kernel file system: everything about a
/// mounted account except the kernel's protocol. Uses the account only through FSPlugin.
///
/// The volume decides which names are equal. A file is uploaded when its last writer closes it; until then it
/// is in the journal, from which this process or a later one retries the upload. Changes of other devices are
/// never overwritten: the volume keeps both versions. Folders that were shown are watched, and listed again
/// when they change. A file's new version gets a node of its own while the older one is open, as if it had
/// been renamed over it: the kernel's caches then hold one version per node, and an open file keeps its
/// version.
///
/// Threads: any, but not the main thread. Operations block until the volume has answered; only those that
/// change the tree wait for each other, and only where their paths overlap (PathLocks). Errors are errno
/// values: ENOENT, EEXIST, ENOTDIR, EISDIR, ENOTEMPTY, EINVAL and ENAMETOOLONG (names that the volume cannot
/// hold), EACCES (also: the account is no longer linked), ENOSPC, EINTR, EBUSY (the service asks to wait),
/// EIO (no connection), ESTALE (the name belongs to another node now: look it up again).
class MountedVolume {
 public:
  /// @param kernel  must outlive this.
  /// @param isLinked  called when the volume fails without an error; must not block. Empty: always linked.
  MountedVolume(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal, KernelCache& kernel,
                LinkSource links, IsLinked isLinked = {}, const MountDelays& delays = {});
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;
  /// Ends the threads and watches; pending uploads stay in the journal.
  ~MountedVolume();

  /// Finishes interrupted renames, reads the uploads that earlier processes left in the journal, and starts
  /// them in the background. Blocks until the volume has answered, if there are such renames.
  void start();
  /// Waits for pending uploads, at most for `timeout`. False when some are still pending.
  bool flushJournal(std::chrono::milliseconds timeout) { return parts_.queue.flush(timeout); }
  /// Makes blocked operations return: the mount is ending. Does not block.
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
