#pragma once
#include <atomic>
#include <mutex>
#include <thread>

/// A recursive lock: the owning thread may lock again and unlocks as often. Spins shortly before it sleeps,
/// because what it guards here (one cache lookup) takes less time than going to sleep. Meets BasicLockable.
/// Any thread; unlocking what another thread holds stops the process.
class Monitor {
 public:
  void lock();
  void unlock();

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  unsigned depth_ = 0;  // touched by the owner only
};
