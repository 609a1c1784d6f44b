#pragma once
#include <chrono>
#include <deque>
#include <memory>
#include <vector>

#include "foundation/Mutex.h"
#include "mount/MountTree.h"

namespace kzv::mount {

/// Folders that may have changed and must be listed again. Any thread; add() does not block and may be called
/// under the tree's lock. Shared with the callbacks of watched folders, which may outlive the mount.
class ChangedFolders {
 public:
  using Clock = std::chrono::steady_clock;
  struct Change {
    std::weak_ptr<MountNode> folder;
    Clock::time_point reportedAt;
    Clock::time_point dueAt = reportedAt;  // not to be handled before
    int failures = 0;                      // listings that have failed since then
  };

  void add(const std::weak_ptr<MountNode>& folder);
  /// Waits until changes are due and removes those; returns none once closed.
  std::deque<Change> take();
  /// Puts back changes that were taken but are not to be handled yet.
  void putBack(const std::vector<Change>& changes);
  /// Waits for `time`, or until closed.
  void pause(std::chrono::milliseconds time);
  void close();
  bool isClosed() const;

 private:
  mutable Mutex mutex_;
  Condition changed_;
  std::deque<Change> changes_ KZV_GUARDED_BY(mutex_);
  bool isClosed_ KZV_GUARDED_BY(mutex_) = false;
};

}  // namespace kzv::mount
