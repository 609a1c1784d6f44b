#pragma once
#include <atomic>
#include <mutex>
#include <thread>

/// A recursive mutex. Spins briefly before it sleeps, because its critical sections (one cache lookup) are
/// shorter than a sleep. Meets BasicLockable. Any thread; unlocking it on a thread that does not hold it
/// aborts the process.
class Monitor {
 public:
  void lock();
  void unlock();

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  unsigned depth_ = 0;  // accessed only by the owner
};
