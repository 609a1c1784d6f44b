#pragma once
#include <string>

#include "mount/ChangedFolders.h"
#include "mount/FolderWatches.h"
#include "mount/KernelCache.h"
#include "mount/Leftovers.h"
#include "mount/MountTree.h"
#include "mount/NodePaths.h"
#include "mount/Result.h"
#include "mount/VolumeCalls.h"

namespace kzv::mount {

/// Fills the tree, folder by folder, from listings of the volume. Any thread, without the tree's lock; calls
/// block until the volume has answered, unless the folder's items are known.
class FolderListings {
 public:
  FolderListings(VolumeCalls& calls, MountTree& tree, NodePaths& paths, FolderWatches& watches,
                 ChangedFolders& changed, Leftovers& leftovers, KernelCache& kernel, NSDate::Time startTime);

  /// Whether the volume would have to list the folder, because it has never done so.
  bool isUnknown(const MountNode& folder) const;
  /// Lists the folder, unless its items are known and current.
  int ensureListed(const MountNodeRef& folder, const IsInterrupted& isInterrupted);
  /// The child under `name` once the folder has been listed; null when there is none.
  /// @param folder  null: ENOENT.
  Result<MountNodeRef> child(const MountNodeRef& folder, const std::string& name,
                             const IsInterrupted& isInterrupted);
  /// Lists the folder at `path` and those above it, as far as they exist.
  void ensurePathListed(const std::string& path, const IsInterrupted& isInterrupted);
  /// Lists the folder at `path` again in the background, if it has been shown. Does not block.
  void refreshSoon(const std::string& path);

 private:
  VolumeCalls& calls_;
  MountTree& tree_;
  NodePaths& paths_;
  FolderWatches& watches_;
  ChangedFolders& changed_;
  Leftovers& leftovers_;
  KernelCache& kernel_;
  const NSDate::Time startTime_;
};

}  // namespace kzv::mount
