#pragma once
#include <string>
#include <utility>
#include <vector>

#include "mount/MountTree.h"

namespace kzv::mount {

/// The kernel's caches of names, attributes, listings and file pages, which must be invalidated after changes
/// made elsewhere. Called from any thread of the mount, never under its locks; may block.
class KernelCache {
 public:
  virtual ~KernelCache() = default;
  /// The name in the folder now belongs to another item, or to none.
  virtual void invalidateEntry(NodeId folder, const std::string& name) = 0;
  /// The file's size, date or bytes have changed.
  virtual void invalidateContent(NodeId file) = 0;
  virtual void invalidateListing(NodeId folder) = 0;
};

/// Invalidations collected under the tree's lock, to be sent once it is released.
struct Invalidations {
  std::vector<std::pair<NodeId, std::string>> entries;
  std::vector<NodeId> contents;
  std::vector<NodeId> listings;

  void sendTo(KernelCache& kernel) const {
    for (const auto& [folder, name] : entries) kernel.invalidateEntry(folder, name);
    for (const NodeId file : contents) kernel.invalidateContent(file);
    for (const NodeId folder : listings) kernel.invalidateListing(folder);
  }
};

}  // namespace kzv::mount
