#pragma once
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/FSPlugin.h"
#include "mount/KernelCache.h"
#include "mount/Leftovers.h"
#include "mount/MountTree.h"

namespace kzv::mount {

/// Updates one folder of the tree from a listing of the volume. Local changes that are not uploaded yet stay,
/// and an open file keeps the version that it was opened with. Used under one TreeLock; the public members
/// collect what the caller must handle after releasing it.
class ListingMerge {
 public:
  ListingMerge(const FSPlugin& volume, MountTree& tree, Leftovers& leftovers, NSDate::Time startTime)
      : volume_(volume), tree_(tree), leftovers_(leftovers), startTime_(startTime) {}

  /// Makes the folder what the listing shows.
  void apply(MountNode& folder, const FSItems& items) KZV_REQUIRES(treeState);
  /// Adds items that the folder lacks; updates and removes none.
  void addMissing(MountNode& folder, const FSItems& items) KZV_REQUIRES(treeState);

  Invalidations invalidations;
  /// Folders that are no longer in the tree but still watched.
  std::vector<MountNodeRef> removedWatched;
  /// To be destroyed without the tree's lock.
  std::vector<std::shared_ptr<FileContent>> unusedContents;

 private:
  void applyItem(MountNode& folder, const FSItem& item, std::string name) KZV_REQUIRES(treeState);
  void removeMissing(MountNode& folder, const std::unordered_set<std::string>& listedKeys)
      KZV_REQUIRES(treeState);
  void remove(const MountNodeRef& node) KZV_REQUIRES(treeState);
  /// Updates a node from the item, whose version it shows or has never shown.
  void update(MountNode& node, const FSItem& item) KZV_REQUIRES(treeState);
  void showNewVersion(const MountNodeRef& node, const FSItem& item) KZV_REQUIRES(treeState);
  static bool isOtherVersion(const MountNode& node, const FSItem& item) KZV_REQUIRES(treeState);

  const FSPlugin& volume_;
  MountTree& tree_;
  Leftovers& leftovers_;
  const NSDate::Time startTime_;
  bool isChanged_ = false;  // nodes were added or removed
};

}  // namespace kzv::mount
