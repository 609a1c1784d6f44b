#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "foundation/Mutex.h"
#include "mount/ChangedFolders.h"
#include "mount/MountTree.h"
#include "mount/NodePaths.h"

namespace kzv::mount {

/// Watches the folders that were shown, and adds those that change to ChangedFolders. Any thread, without the
/// tree's lock; calls block while another thread starts or ends a watch.
class FolderWatches {
 public:
  FolderWatches(std::shared_ptr<FSPlugin> volume, const MountTree& tree, NodePaths& paths,
                std::shared_ptr<ChangedFolders> changed);
  FolderWatches(const FolderWatches&) = delete;
  FolderWatches& operator=(const FolderWatches&) = delete;
  /// Ends all watches of folders in the tree.
  ~FolderWatches();

  /// Watches `folder`, which is at `path`, unless it is watched already.
  void watch(const MountNodeRef& folder, const std::string& path);
  void unwatch(MountNode& folder);
  /// Watches the folders at their current paths, and has them listed again.
  void renew(const std::vector<MountNodeRef>& folders);

 private:
  const std::shared_ptr<FSPlugin> volume_;
  const MountTree& tree_;
  NodePaths& paths_;
  const std::shared_ptr<ChangedFolders> changed_;
  Mutex mutex_;  // the volume starts and ends watches one at a time; locked before the tree
};

}  // namespace kzv::mount
