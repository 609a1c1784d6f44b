#include "mount/FolderRefresher.h"

#include <algorithm>
#include <cerrno>
#include <unordered_set>
#include <utility>
#include <vector>

#include "foundation/NSThread.h"

namespace kzv::mount {

using Listing = MountNode::Folder::Listing;

FolderRefresher::FolderRefresher(const MountTree& tree, std::shared_ptr<ChangedFolders> changed,
                                 KernelCache& kernel, List list, const MountDelays& delays)
    : tree_(tree), changed_(std::move(changed)), kernel_(kernel), list_(std::move(list)), delays_(delays) {}

FolderRefresher::~FolderRefresher() {
  changed_->close();
  if (thread_.joinable()) thread_.join();
}

void FolderRefresher::start() {
  thread_ = std::thread([this] {
    setCurrentThreadName("kzv-refresh");
    run();
  });
}

bool FolderRefresher::shouldWait(const MountNode& folder, const ChangedFolders::Change& change,
                                 ChangedFolders::Clock::time_point now, const MountDelays& delays) {
  return folder.inside().listing == Listing::complete &&
         now - folder.inside().changedHereAt < delays.quietFolder &&
         now - change.reportedAt < delays.longestRefreshDelay;
}

void FolderRefresher::run() {
  while (!changed_->isClosed()) {
    std::unordered_set<const MountNode*> done;
    std::vector<ChangedFolders::Change> later;
    for (const auto& change : changed_->take()) {
      const MountNodeRef folder = change.folder.lock();
      if (!folder || !done.insert(folder.get()).second) continue;
      if (const auto again = refresh(folder, change)) later.push_back(*again);
    }
    changed_->putBack(later);
    changed_->pause(delays_.refresh);
  }
}

std::optional<ChangedFolders::Change> FolderRefresher::refresh(const MountNodeRef& folder,
                                                               const ChangedFolders::Change& change) {
  {
    const TreeLock lock(tree_);
    if (!tree_.contains(*folder)) return std::nullopt;
    auto& inside = folder->inside();
    if (change.failures > 0 && inside.listing == Listing::complete) return std::nullopt;  // listed meanwhile
    if (shouldWait(*folder, change, ChangedFolders::Clock::now(), delays_)) return change;
    // Also while the first listing is in flight: it may show the state before the change.
    ++inside.changes;
    if (inside.listing == Listing::unknown) return std::nullopt;
    inside.listing = Listing::outOfDate;
  }
  const int reason = list_(folder);
  if (reason == 0) return std::nullopt;
  if (change.failures == 0) kernel_.invalidateListing(folder->id);
  // Removed, or the account is no longer linked.
  if (reason == ENOENT || reason == EACCES) return std::nullopt;
  auto again = change;
  const auto delay = delays_.firstRefreshRetry * (1 << std::min(again.failures, 8));
  again.dueAt = ChangedFolders::Clock::now() + std::min(delay, delays_.longestRefreshRetry);
  ++again.failures;
  return again;
}

}  // namespace kzv::mount
