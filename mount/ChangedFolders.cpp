#include "mount/ChangedFolders.h"

#include <algorithm>
#include <iterator>

namespace kzv::mount {

void ChangedFolders::add(const std::weak_ptr<MountNode>& folder) {
  {
    const MutexLock lock(mutex_);
    const auto now = Clock::now();
    changes_.push_back({folder, now, now, 0});
  }
  changed_.notifyOne();
}

std::deque<ChangedFolders::Change> ChangedFolders::take() {
  MutexLock lock(mutex_);
  while (!isClosed_) {
    const auto now = Clock::now();
    const auto later = std::stable_partition(changes_.begin(), changes_.end(),
                                             [&](const Change& change) { return change.dueAt <= now; });
    std::deque<Change> due(std::make_move_iterator(changes_.begin()), std::make_move_iterator(later));
    changes_.erase(changes_.begin(), later);
    if (!due.empty()) return due;
    if (changes_.empty()) {
      changed_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return isClosed_ || !changes_.empty(); });
    } else {
      const auto next = std::min_element(changes_.begin(), changes_.end(),
                                         [](const Change& a, const Change& b) { return a.dueAt < b.dueAt; });
      changed_.waitUntil(lock, next->dueAt);
    }
  }
  return {};
}

void ChangedFolders::putBack(const std::vector<Change>& changes) {
  const MutexLock lock(mutex_);
  changes_.insert(changes_.begin(), changes.begin(), changes.end());
}

void ChangedFolders::pause(std::chrono::milliseconds time) {
  MutexLock lock(mutex_);
  changed_.waitFor(lock, time, [this]() KZV_REQUIRES(mutex_) { return isClosed_; });
}

void ChangedFolders::close() {
  {
    const MutexLock lock(mutex_);
    isClosed_ = true;
  }
  changed_.notifyAll();
}

bool ChangedFolders::isClosed() const {
  const MutexLock lock(mutex_);
  return isClosed_;
}

}  // namespace kzv::mount
