#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "mount/MountTree.h"
#include "mount/SendQueue.h"
#include "mount/journal/UploadJournal.h"

namespace kzv::mount {

/// Entries that earlier processes left in the journal and no folder shows yet: pending uploads (held by the
/// send queue) and files that stay on this machine. Each becomes a file of the tree when its folder is
/// listed. Any thread; calls block for the disk.
class Leftovers {
 public:
  Leftovers(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal, MountTree& tree,
            SendQueue& queue, NSDate::Time startTime);

  /// Reads the journal. Call it once, before the first listing.
  void load();
  /// Adds the leftovers of `folder`, which has just been listed. Folders that the volume no longer has are
  /// shown as long as they have files that stay on this machine.
  void adoptInto(MountNode& folder) KZV_REQUIRES(treeState);
  /// Whether a leftover that is not shown yet belongs below the folder at `path`.
  bool hasAnyBelow(const std::string& path);
  /// Changes the paths of leftovers at or below `from`, which is being renamed to `to`.
  void move(const std::string& from, const std::string& to);

 private:
  std::optional<SendQueue::File> adoptUpload(MountNode& folder, const std::string& folderKey,
                                             const UploadJournal::Upload& upload) KZV_REQUIRES(treeState);
  /// Returns false if it does not belong below the folder, or cannot be shown.
  bool adoptLocal(MountNode& folder, const UploadJournal::Local& local) KZV_REQUIRES(treeState);

  const std::shared_ptr<FSPlugin> volume_;
  const std::shared_ptr<UploadJournal> journal_;
  MountTree& tree_;
  SendQueue& queue_;
  const NSDate::Time startTime_;
  std::vector<UploadJournal::Local> locals_ KZV_GUARDED_BY(treeState);
};

}  // namespace kzv::mount
