#pragma once
#include <memory>
#include <string>

#include "mount/Lookups.h"
#include "mount/MountParts.h"
#include "mount/Result.h"

namespace kzv::mount {

/// Creates folders and removes items; renames are in Rename. Any thread, without the tree's lock; calls block
/// until the volume has answered. Errors are errno values, see MountedVolume. A listing may be applied
/// between any two steps of a change, so each step checks the tree again.
class TreeChanges {
 public:
  TreeChanges(MountParts& parts, Lookups& lookups) : parts_(parts), lookups_(lookups) {}

  Result<FoundItem> makeFolder(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  int removeFile(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  int removeFolder(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);

  // Steps of changes, for Rename too.
  /// Asks the volume whether the folder is empty: 0, ENOTEMPTY or another errno value. Needed because the
  /// volume removes a folder with everything in it. The caller holds the subtree.
  int checkEmpty(const MountNodeRef& folder, const std::string& path, const IsInterrupted& isInterrupted);
  /// Removes a deleted item from the tree and drops its pending upload. The kernel itself invalidates `name`.
  void removeFromTree(const MountNodeRef& node, const std::string& name);
  /// Whether another device has replaced or removed the item.
  bool isReplaced(const MountNodeRef& node) const;

 private:
  /// The folder's item of that name; ENOENT when there is none.
  Result<MountNodeRef> findChild(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);

  MountParts& parts_;
  Lookups& lookups_;
};

}  // namespace kzv::mount
