#pragma once
#include <chrono>
#include <memory>

#include "mount/ChangedFolders.h"
#include "mount/ContentStore.h"
#include "mount/FolderListings.h"
#include "mount/FolderWatches.h"
#include "mount/KernelCache.h"
#include "mount/Leftovers.h"
#include "mount/MountDelays.h"
#include "mount/MountTree.h"
#include "mount/NodePaths.h"
#include "mount/SendQueue.h"
#include "mount/TreeWalks.h"
#include "mount/Uploader.h"
#include "mount/VolumeCalls.h"

namespace kzv::mount {

/// The parts that the operations of a mounted volume share; each uses only those above it. Owned by
/// MountedVolume.
struct MountParts {
  MountParts(std::shared_ptr<FSPlugin> volumeToMount, std::shared_ptr<UploadJournal> journalToUse,
             KernelCache& kernelCache, IsLinked isLinked, const MountDelays& delaysToUse)
      : delays(delaysToUse),
        volume(std::move(volumeToMount)),
        journal(std::move(journalToUse)),
        kernel(kernelCache),
        calls(volume, std::move(isLinked), delays.retries) {}

  const MountDelays delays;
  const NSDate::Time startTime = std::chrono::system_clock::now();  // shown for items without a date
  const std::shared_ptr<FSPlugin> volume;
  const std::shared_ptr<UploadJournal> journal;
  KernelCache& kernel;
  VolumeCalls calls;
  TreeWalks walks{volume, delays.walkWindow};
  MountTree tree{[this](std::string_view name) { return volume->nameKey(name); }};
  NodePaths paths{tree, calls};
  const std::shared_ptr<ChangedFolders> changed = std::make_shared<ChangedFolders>();
  FolderWatches watches{volume, tree, paths, changed};
  SendQueue queue{delays};
  Leftovers leftovers{volume, journal, tree, queue, startTime};
  FolderListings listings{calls, tree, paths, watches, *changed, leftovers, kernel, startTime};
  ContentStore contents{calls, journal, tree, paths, *changed, kernel};
  Uploader uploader{calls, journal, tree, paths, contents, listings, queue, *changed, kernel, delays};
};

}  // namespace kzv::mount
