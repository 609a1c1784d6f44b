#include "mount/FolderListings.h"

#include <cerrno>
#include <utility>

#include "mount/ListingMerge.h"
#include "mount/VolumePath.h"

namespace kzv::mount {

using Listing = MountNode::Folder::Listing;

FolderListings::FolderListings(VolumeCalls& calls, MountTree& tree, NodePaths& paths, FolderWatches& watches,
                               ChangedFolders& changed, Leftovers& leftovers, KernelCache& kernel,
                               NSDate::Time startTime)
    : calls_(calls),
      tree_(tree),
      paths_(paths),
      watches_(watches),
      changed_(changed),
      leftovers_(leftovers),
      kernel_(kernel),
      startTime_(startTime) {}

bool FolderListings::isUnknown(const MountNode& folder) const {
  const TreeLock lock(tree_);
  return folder.isRemote && folder.inside().listing == Listing::unknown;
}

int FolderListings::ensureListed(const MountNodeRef& folder, const IsInterrupted& isInterrupted) {
  constexpr int rounds = 3;  // then a folder that keeps changing is shown as it was a moment ago
  for (int round = 1; round <= rounds; ++round) {
    std::uint64_t changesBefore = 0;
    {
      const TreeLock lock(tree_);
      if (folder->inside().listing == Listing::complete) return 0;
      if (!folder->isRemote) return 0;  // deleted elsewhere; it only has files that are not uploaded
      changesBefore = folder->inside().changes;
    }
    const auto held = paths_.hold(folder);
    if (!held) return ENOENT;
    watches_.watch(folder, held->path);  // before the listing: later changes are then reported
    const auto listed = calls_.list(held->path, isInterrupted);
    if (listed.error) return listed.error;
    ListingMerge merge(calls_.volume(), tree_, leftovers_, startTime_);
    {
      const TreeLock lock(tree_);
      if (!tree_.contains(*folder)) return ENOENT;
      const bool isCurrent = folder->inside().changes == changesBefore;
      if (!isCurrent && round < rounds) continue;
      if (isCurrent) {
        merge.apply(*folder, listed.value);
        folder->inside().listing = Listing::complete;
      } else {
        // The listing is out of date: items that it lacks may have been created since, so nothing is removed.
        // The refresher lists the folder again.
        if (folder->inside().listing == Listing::unknown) merge.addMissing(*folder, listed.value);
        folder->inside().listing = Listing::outOfDate;
        changed_.add(folder);
      }
    }
    merge.invalidations.sendTo(kernel_);
    for (const auto& removed : merge.removedWatched) watches_.unwatch(*removed);
    return 0;
  }
  return 0;
}

Result<MountNodeRef> FolderListings::child(const MountNodeRef& folder, const std::string& name,
                                           const IsInterrupted& isInterrupted) {
  if (!folder) return {nullptr, ENOENT};
  if (!folder->isFolder) return {nullptr, ENOTDIR};
  if (const int reason = ensureListed(folder, isInterrupted)) return {nullptr, reason};
  const TreeLock lock(tree_);
  return {tree_.child(*folder, name), 0};
}

void FolderListings::ensurePathListed(const std::string& path, const IsInterrupted& isInterrupted) {
  MountNodeRef folder = tree_.root();
  for (const std::string& name : componentsOf(path))
    if (folder) folder = child(folder, name, isInterrupted).value;
  if (folder && folder->isFolder) ensureListed(folder, isInterrupted);
}

void FolderListings::refreshSoon(const std::string& path) {
  const TreeLock lock(tree_);
  const MountNodeRef folder = tree_.atPath(path);
  if (folder && folder->isFolder) changed_.add(folder);
}

}  // namespace kzv::mount
