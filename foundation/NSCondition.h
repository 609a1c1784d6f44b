#pragma once
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "foundation/NSObject.h"

/// A mutex with a condition whose wait returns exactly once per signal: spurious wake-ups are handled here,
/// so a wait needs no predicate. Meets BasicLockable. Any thread.
class NSCondition final : public NSObject {
 public:
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  /// REQUIRES the lock; atomically releases it and sleeps, and holds it again on return. Waiters wake in the
  /// order in which they began to wait. No time limit.
  void wait();
  /// REQUIRES the lock. Wakes the first waiter; has no effect when there is none.
  void signal();

 private:
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::uint64_t arrived_ = 0;   // guarded by mutex_: number of waits begun
  std::uint64_t released_ = 0;  // guarded by mutex_: number of waits signalled
};
