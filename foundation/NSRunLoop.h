#pragma once
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// Fires a handler on the thread of the run loop that carries it. A repeating timer keeps to its first
/// schedule: after a long callback the missed firings fold into one, and the next comes at the next multiple
/// of the interval. Belongs to at most one run loop, which keeps it: a repeating one for as long as the loop
/// lives.
class NSTimer {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::function<void(NSTimer&)>;
  /// @param interval  at least a nanosecond, at most 100 years; the first firing comes one interval from now.
  NSTimer(std::chrono::duration<double> interval, Handler handler, bool repeats);

 private:
  friend class NSRunLoop;
  const Clock::duration interval_;
  const Handler handler_;
  const bool repeats_;
  Clock::time_point next_;  // touched by the run loop's thread only
};

/// The queue of one thread: blocks that others post and timers, run in order on that thread while it is
/// inside runUntilDate. A block or timer that throws is logged and does not end the loop.
class NSRunLoop {
 public:
  using Clock = NSTimer::Clock;
  using Block = std::function<void()>;

  /// The loop of the calling thread, made on first use; lives as long as the thread.
  static std::shared_ptr<NSRunLoop> currentRunLoop();
  /// The loop of the process's first thread. The main queue posts here.
  static std::shared_ptr<NSRunLoop> mainRunLoop();

  /// Appends a block. Any thread; does not wait.
  void perform(Block block);
  /// Any thread; does not wait.
  void addTimer(std::shared_ptr<NSTimer> timer);
  /// Serves blocks and timers until `date` or until stop() is called; returns at once when there is neither a
  /// block nor a timer. What waits at the time of the call is served even when `date` is past. Blocks and due
  /// timers take turns, so that neither can keep the other from running. REQUIRES the loop's own thread; a
  /// block may run its loop again. Blocks.
  void runUntilDate(Clock::time_point date);
  /// As runUntilDate, but waits for blocks also while there is nothing to serve: for a main thread with
  /// nothing else to do. Returns true when stop() ended it.
  bool waitUntilDate(Clock::time_point date);
  /// Ends the present (or else the next) run after the block that is running. Any thread.
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
