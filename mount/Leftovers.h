#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "mount/MountTree.h"
#include "mount/SendQueue.h"
#include "mount/journal/UploadJournal.h"

namespace kzv::mount {

/// What earlier processes left in the journal and no folder shows yet: files to upload (which the send queue
/// holds) and files that stay on this machine. The listing of its folder makes each a file of the tree. Any
/// thread; calls block for the disk.
class Leftovers {
 public:
  Leftovers(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal, MountTree& tree,
            SendQueue& queue, NSDate::Time startTime);

  /// Reads the journal. Call it once, before the first listing.
  void load();
  /// Adds to `folder`, which has just been listed, what belongs in it. Folders that the volume has no more
  /// are shown for as long as files are in them that stay on this machine.
  void adoptInto(MountNode& folder) KZV_REQUIRES(treeState);
  /// Whether something that is not shown yet belongs below the folder at `path`.
  bool hasAnyBelow(const std::string& path);
  /// Moves along what belongs at or below `from`, which is renamed.
  void move(const std::string& from, const std::string& to);

 private:
  std::optional<SendQueue::File> adoptUpload(MountNode& folder, const std::string& folderKey,
                                             const UploadJournal::Upload& upload) KZV_REQUIRES(treeState);
  /// False: it does not belong below the folder, or cannot be shown.
  bool adoptLocal(MountNode& folder, const UploadJournal::Local& local) KZV_REQUIRES(treeState);

  const std::shared_ptr<FSPlugin> volume_;
  const std::shared_ptr<UploadJournal> journal_;
  MountTree& tree_;
  SendQueue& queue_;
  const NSDate::Time startTime_;
  std::vector<UploadJournal::Local> locals_ KZV_GUARDED_BY(treeState);
};

}  // namespace kzv::mount
