#pragma once
#include <memory>
#include <string>

#include "mount/Lookups.h"
#include "mount/MountParts.h"
#include "mount/Result.h"

namespace kzv::mount {

/// Makes and removes items; renames are in Rename. Any thread, without the tree's lock; calls block until the
/// volume has answered. Errors are errno values, see MountedVolume. A listing may be applied between any two
/// steps of a change, so each step looks again at what is there.
class TreeChanges {
 public:
  TreeChanges(MountParts& parts, Lookups& lookups) : parts_(parts), lookups_(lookups) {}

  Result<FoundItem> makeFolder(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  int removeFile(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  int removeFolder(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);

  // Steps of changes, for Rename too.
  /// 0 when nothing is in the folder, as the volume says now, else ENOTEMPTY or another errno value: removing
  /// a folder of the volume removes what is in it. The caller holds its subtree.
  int checkEmpty(const MountNodeRef& folder, const std::string& path, const IsInterrupted& isInterrupted);
  /// Takes a removed item out of the tree; what it had to upload is dropped. The kernel knows of `name`.
  void takeOut(const MountNodeRef& node, const std::string& name);
  /// Whether another device's version has taken the node's place, or another device has removed the item.
  bool isReplaced(const MountNodeRef& node) const;

 private:
  /// The node that a folder has under a name, if it is of the kind expected.
  Result<MountNodeRef> findChild(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);

  MountParts& parts_;
  Lookups& lookups_;
};

}  // namespace kzv::mount
