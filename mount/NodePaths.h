#pragma once
#include <optional>
#include <string>

#include "mount/MountTree.h"
#include "mount/PathLocks.h"
#include "mount/Result.h"
#include "mount/VolumeCalls.h"

namespace kzv::mount {

/// The path of a node, which does not change while this lives.
struct HeldPath {
  std::string path;
  bool isRemote = false;  // the volume has the item
  PathLocks::Hold hold;
};

/// Path locks by node: a node may be moved or removed while a thread waits for its path. Any thread, without
/// the tree's lock.
class NodePaths {
 public:
  NodePaths(const MountTree& tree, VolumeCalls& calls) : tree_(tree), calls_(calls) {}

  /// Shares the node's path; nothing when the node is no longer in the tree.
  std::optional<HeldPath> hold(const MountNodeRef& node);
  /// Holds the node's subtree alone. ENOENT when the node is no longer in the tree.
  Result<HeldPath> holdSubtree(const MountNodeRef& node, const IsInterrupted& isInterrupted);
  /// Shares a path that no node needs to have.
  HeldPath holdPath(std::string path);

  PathLocks& locks() { return locks_; }

 private:
  /// What the path looks like now that it is held; nothing when the node is gone or has another key by now.
  std::optional<HeldPath> checked(const MountNode& node, const std::string& key, PathLocks::Hold hold) const;
  std::optional<std::string> keyOf(const MountNode& node) const;

  const MountTree& tree_;
  VolumeCalls& calls_;
  PathLocks locks_;
};

}  // namespace kzv::mount
