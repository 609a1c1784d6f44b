#include "foundation/NSRunLoop.h"

#include <algorithm>
#include <utility>

#include "foundation/Fatal.h"
#include "foundation/NSThread.h"

NSTimer::NSTimer(std::chrono::duration<double> interval, Handler handler, bool repeats)
    : interval_(std::chrono::duration_cast<Clock::duration>(interval)),
      handler_(std::move(handler)),
      repeats_(repeats),
      next_(Clock::now() + interval_) {
  if (interval_ <= Clock::duration::zero()) fatalInvariant("a timer's interval is positive");
}

std::shared_ptr<NSRunLoop> NSRunLoop::currentRunLoop() { return NSThread::currentThread()->runLoop(); }

std::shared_ptr<NSRunLoop> NSRunLoop::mainRunLoop() { return NSThread::mainThread()->runLoop(); }

void NSRunLoop::perform(Block block) {
  {
    const std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
  }
  wakeUp_.notify_one();
}

void NSRunLoop::addTimer(std::shared_ptr<NSTimer> timer) {
  {
    const std::lock_guard lock(mutex_);
    timers_.push_back(std::move(timer));
  }
  wakeUp_.notify_one();
}

void NSRunLoop::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  wakeUp_.notify_one();
}

void NSRunLoop::runUntilDate(Clock::time_point date) { run(date, false); }

bool NSRunLoop::waitUntilDate(Clock::time_point date) { return run(date, true); }

bool NSRunLoop::run(Clock::time_point date, bool waitWhenEmpty) {
  std::unique_lock lock(mutex_);
  while (true) {
    if (std::exchange(stopped_, false)) return true;
    if (fireDueTimer(lock) || runNextBlock(lock)) continue;
    if (!waitWhenEmpty && timers_.empty()) return false;
    const auto wakeAt = earliestTimer(date);
    if (Clock::now() >= date) return false;
    wakeUp_.wait_until(lock, wakeAt,
                       [&] { return stopped_ || !blocks_.empty() || earliestTimer(date) < wakeAt; });
  }
}

bool NSRunLoop::runNextBlock(std::unique_lock<std::mutex>& lock) {
  if (blocks_.empty()) return false;
  {
    const Block block = std::move(blocks_.front());
    blocks_.pop_front();
    lock.unlock();
    runGuarded(block);
  }  // what the block held goes before the lock is taken again: its destructor may post here
  lock.lock();
  return true;
}

bool NSRunLoop::fireDueTimer(std::unique_lock<std::mutex>& lock) {
  const auto now = Clock::now();
  const auto due =
      std::find_if(timers_.begin(), timers_.end(), [&](const auto& timer) { return timer->next_ <= now; });
  if (due == timers_.end()) return false;
  const std::shared_ptr<NSTimer> timer = *due;
  if (timer->repeats_) {
    const auto missed = (now - timer->next_) / timer->interval_;
    timer->next_ += timer->interval_ * (missed + 1);
  } else {
    timers_.erase(due);
  }
  lock.unlock();
  runGuarded([&] { timer->handler_(*timer); });
  lock.lock();
  return true;
}

NSRunLoop::Clock::time_point NSRunLoop::earliestTimer(Clock::time_point limit) const {
  for (const auto& timer : timers_) limit = std::min(limit, timer->next_);
  return limit;
}
