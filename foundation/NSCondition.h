#pragma once
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "foundation/NSObject.h"

/// A mutex with a condition whose wait returns exactly once per signal: spurious wake-ups of the system are
/// swallowed here, so that one wait without a predicate is enough. Meets BasicLockable. Any thread.
class NSCondition final : public NSObject {
 public:
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  /// REQUIRES the lock. Gives it up and takes it back in one step with going to sleep; has it again on
  /// return. Waiters are released in the order in which they came. No time limit.
  void wait();
  /// REQUIRES the lock. Releases the waiter that came first; lost when nobody waits.
  void signal();

 private:
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::uint64_t arrived_ = 0;   // guarded by mutex_: how many waits have begun
  std::uint64_t released_ = 0;  // guarded by mutex_: how many of them have been signalled
};
