#include "foundation/Monitor.h"

#include "foundation/Fatal.h"

void Monitor::lock() {
  const auto self = std::this_thread::get_id();
  // Only this thread stores its own id, so a relaxed load that finds it is reliable.
  if (owner_.load(std::memory_order_relaxed) == self) {
    ++depth_;
    return;
  }
  constexpr int spins = 64;
  bool taken = mutex_.try_lock();
  for (int spin = 0; !taken && spin < spins; ++spin) {
    std::this_thread::yield();
    taken = mutex_.try_lock();
  }
  if (!taken) mutex_.lock();
  owner_.store(self, std::memory_order_relaxed);
  depth_ = 1;
}

void Monitor::unlock() {
  if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
    fatalInvariant("a monitor must be unlocked by the thread that holds it");
  }
  if (--depth_ > 0) return;
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  mutex_.unlock();
}
