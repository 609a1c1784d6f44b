#pragma once
#include <optional>
#include <string>

#include "mount/MountTree.h"
#include "mount/PathLocks.h"
#include "mount/Result.h"
#include "mount/VolumeCalls.h"

namespace kzv::mount {

/// The path of a node, locked: it does not change while this lives.
struct HeldPath {
  std::string path;
  bool isRemote = false;  // the volume has the item
  PathLocks::Hold hold;
};

/// Path locks by node, which may be moved or removed while a thread waits for its path. Any thread, without
/// the tree's lock; calls block until the path is free.
class NodePaths {
 public:
  NodePaths(const MountTree& tree, VolumeCalls& calls) : tree_(tree), calls_(calls) {}

  /// Locks the node's path, shared; nothing when the node is no longer in the tree.
  std::optional<HeldPath> hold(const MountNodeRef& node);
  /// Locks the node's subtree, exclusively. ENOENT when the node is no longer in the tree; EINTR when
  /// interrupted.
  Result<HeldPath> holdSubtree(const MountNodeRef& node, const IsInterrupted& isInterrupted);
  /// Locks a path, shared, whether a node has it or not.
  HeldPath holdPath(std::string path);

  PathLocks& locks() { return locks_; }

 private:
  /// The node's current path; nothing when the node was removed or has another key than the one held.
  std::optional<HeldPath> checked(const MountNode& node, const std::string& key, PathLocks::Hold hold) const;
  std::optional<std::string> keyOf(const MountNode& node) const;

  const MountTree& tree_;
  VolumeCalls& calls_;
  PathLocks locks_;
};

}  // namespace kzv::mount
