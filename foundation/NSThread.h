#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>

#include "foundation/NSObject.h"

class NSRunLoop;

/// A thread as an object, created on first use.
class NSThread final : public NSObject {
 public:
  /// The calling thread's object; it may outlive the thread.
  static std::shared_ptr<NSThread> currentThread();
  /// The process's first thread.
  static std::shared_ptr<NSThread> mainThread();
  static bool isMainThread();
  /// Blocks for `interval` (seconds); returns at once for zero or less.
  static void sleepForTimeInterval(std::chrono::duration<double> interval);

  bool isCurrentThread() const noexcept { return id_ == std::this_thread::get_id(); }
  const std::shared_ptr<NSRunLoop>& runLoop() const noexcept { return runLoop_; }

  /// Queues `block` on this thread's run loop, which must be running. With `waitUntilDone` blocks until it
  /// has run, without a time limit; on the thread itself it then runs at once, ahead of queued blocks. An
  /// exception that leaves the block is logged and swallowed. Any thread.
  void perform(std::function<void()> block, bool waitUntilDone);

  NSThread();  // for the thread that constructs it; use currentThread()

 private:
  const std::thread::id id_;
  const std::shared_ptr<NSRunLoop> runLoop_;
};

/// Runs `block`; an exception that leaves it is logged as one line and swallowed.
void runGuarded(const std::function<void()>& block) noexcept;

/// Names the calling thread for debuggers and `top -H` (the first 15 bytes).
void setCurrentThreadName(std::string_view name);
