#include "foundation/NSRunLoop.h"

#include <algorithm>
#include <utility>

#include "foundation/Fatal.h"
#include "foundation/NSThread.h"

namespace {
NSTimer::Clock::duration checkedInterval(std::chrono::duration<double> interval) {
  constexpr std::chrono::duration<double> shortest = std::chrono::nanoseconds(1);
  constexpr std::chrono::duration<double> longest = std::chrono::years(100);
  if (!(interval >= shortest && interval <= longest)) {  // also false for NaN
    fatalInvariant("a timer's interval must be between a nanosecond and 100 years");
  }
  return std::chrono::duration_cast<NSTimer::Clock::duration>(interval);
}
}  // namespace

NSTimer::NSTimer(std::chrono::duration<double> interval, Handler handler, bool repeats)
    : interval_(checkedInterval(interval)),
      handler_(std::move(handler)),
      repeats_(repeats),
      next_(Clock::now() + interval_) {}

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
  std::size_t waitingAtStart = blocks_.size();
  while (true) {
    if (std::exchange(stopped_, false)) return true;
    const bool isOver = Clock::now() >= date;
    const bool hasFired = fireDueTimer(lock);
    if (stopped_) continue;
    if (isOver && waitingAtStart == 0) return false;
    const bool hasRun = runNextBlock(lock);
    if (waitingAtStart > 0) --waitingAtStart;
    if (hasFired || hasRun) continue;
    if (!waitWhenEmpty && timers_.empty()) return false;
    const auto wakeAt = earliestTimer(date);
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
  }  // the block is destroyed without the lock: its captures' destructors may call perform
  lock.lock();
  return true;
}

bool NSRunLoop::fireDueTimer(std::unique_lock<std::mutex>& lock) {
  std::shared_ptr<NSTimer> timer = takeDueTimer();
  if (!timer) return false;
  lock.unlock();
  runGuarded([&] { timer->handler_(*timer); });
  timer.reset();  // without the lock, for the same reason as a block
  lock.lock();
  return true;
}

/// The timer that has been due longest, already rescheduled or removed; null when none is due.
std::shared_ptr<NSTimer> NSRunLoop::takeDueTimer() {
  const auto now = Clock::now();
  const auto first =
      std::min_element(timers_.begin(), timers_.end(),
                       [](const auto& left, const auto& right) { return left->next_ < right->next_; });
  if (first == timers_.end() || (*first)->next_ > now) return nullptr;
  std::shared_ptr<NSTimer> timer = *first;
  if (timer->repeats_) {
    const auto missed = (now - timer->next_) / timer->interval_;
    timer->next_ += timer->interval_ * (missed + 1);
  } else {
    timers_.erase(first);
  }
  return timer;
}

NSRunLoop::Clock::time_point NSRunLoop::earliestTimer(Clock::time_point limit) const {
  for (const auto& timer : timers_) limit = std::min(limit, timer->next_);
  return limit;
}
