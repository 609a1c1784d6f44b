#pragma once
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// Fires a handler on its run loop's thread. A repeating timer keeps its original schedule: firings missed
/// during a long callback are merged into one, and the next is at the next multiple of the interval. Belongs
/// to at most one run loop, which retains it: a repeating timer for the loop's lifetime.
class NSTimer {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::function<void(NSTimer&)>;
  /// @param interval  at least a nanosecond, at most 100 years; the first firing is one interval from now.
  NSTimer(std::chrono::duration<double> interval, Handler handler, bool repeats);

 private:
  friend class NSRunLoop;
  const Clock::duration interval_;
  const Handler handler_;
  const bool repeats_;
  Clock::time_point next_;  // accessed only on the run loop's thread
};

/// One thread's queue of blocks, posted by any thread, and timers; they run on that thread while it is inside
/// runUntilDate. An exception from a block or timer is logged and does not end the loop.
class NSRunLoop {
 public:
  using Clock = NSTimer::Clock;
  using Block = std::function<void()>;

  /// The calling thread's loop, created on first use; lives as long as the thread.
  static std::shared_ptr<NSRunLoop> currentRunLoop();
  /// The loop of the process's first thread. The main queue posts here.
  static std::shared_ptr<NSRunLoop> mainRunLoop();

  /// Appends a block. Any thread; does not block.
  void perform(Block block);
  /// Any thread; does not wait.
  void addTimer(std::shared_ptr<NSTimer> timer);
  /// Serves blocks and timers until `date` or until stop() is called; returns at once when there is neither a
  /// block nor a timer. What is queued at the time of the call runs even when `date` is past. Blocks and due
  /// timers alternate, so that neither starves the other. REQUIRES the loop's own thread; may be called by a
  /// block of the loop. Blocks.
  void runUntilDate(Clock::time_point date);
  /// Like runUntilDate, but keeps waiting while the loop is empty: for a main thread with nothing else to do.
  /// Returns true when stop() ended it.
  bool waitUntilDate(Clock::time_point date);
  /// Ends the current run, or else the next one, after the running block. Any thread.
  void stop();

 private:
  bool run(Clock::time_point date, bool waitWhenEmpty);
  bool runNextBlock(std::unique_lock<std::mutex>& lock);
  bool fireDueTimer(std::unique_lock<std::mutex>& lock);
  std::shared_ptr<NSTimer> takeDueTimer();
  Clock::time_point earliestTimer(Clock::time_point limit) const;

  mutable std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<Block> blocks_;                      // guarded by mutex_
  std::vector<std::shared_ptr<NSTimer>> timers_;  // guarded by mutex_
  bool stopped_ = false;                          // guarded by mutex_
};
