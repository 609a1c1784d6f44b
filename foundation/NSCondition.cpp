#include "foundation/NSCondition.h"

void NSCondition::wait() {
  std::unique_lock held(mutex_, std::adopt_lock);
  const std::uint64_t ticket = arrived_++;
  wakeUp_.wait(held, [&] { return released_ > ticket; });
  held.release();
}

void NSCondition::signal() {
  if (released_ == arrived_) return;
  ++released_;
  wakeUp_.notify_all();  // only the waiter with the released ticket continues; there is rarely more than one
                         // waiter
}
