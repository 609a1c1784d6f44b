#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "mount/ChangedFolders.h"
#include "mount/KernelCache.h"
#include "mount/MountDelays.h"
#include "mount/MountTree.h"

namespace kzv::mount {

/// Lists changed folders again, on a thread of its own: at once, because the kernel answers from its cache
/// and nobody may ever ask for them.
class FolderRefresher {
 public:
  /// Lists a folder that is marked as out of date; 0 or an errno value. Called without locks; may block.
  using List = std::function<int(const MountNodeRef& folder)>;

  FolderRefresher(const MountTree& tree, std::shared_ptr<ChangedFolders> changed, KernelCache& kernel,
                  List list, const MountDelays& delays);
  FolderRefresher(const FolderRefresher&) = delete;
  FolderRefresher& operator=(const FolderRefresher&) = delete;
  /// Closes the changed folders and waits for the thread.
  ~FolderRefresher();

  void start();

  /// Whether to list the folder later because this mount is changing it. Programs make several changes in a
  /// row, and the volume reports each of them back; meanwhile the folder's items are known here, and a
  /// listing would only delay the next change.
  static bool shouldWait(const MountNode& folder, const ChangedFolders::Change& change,
                         ChangedFolders::Clock::time_point now, const MountDelays& delays)
      KZV_REQUIRES(treeState);

 private:
  void run();
  /// Returns the change if it is to be handled later.
  std::optional<ChangedFolders::Change> refresh(const MountNodeRef& folder,
                                                const ChangedFolders::Change& change);

  const MountTree& tree_;
  const std::shared_ptr<ChangedFolders> changed_;
  KernelCache& kernel_;
  const List list_;
  const MountDelays& delays_;
  std::thread thread_;
};

}  // namespace kzv::mount
