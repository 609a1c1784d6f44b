#pragma once
#include <functional>
#include <memory>
#include <string>

/// Runs blocks in the background. All queues may be used from any thread; async never waits. Exceptions that
/// leave a block are logged and go no further. What a block holds is released before the next one of its
/// queue begins.
class DispatchQueue {
 public:
  using Block = std::function<void()>;

  /// The concurrent queue of default priority: a pool that grows to 64 workers, because its blocks may wait.
  /// Beyond that, or when the system has no more threads, blocks wait for a free worker. Blocks begin in the
  /// order in which they came.
  static DispatchQueue& global();
  /// Blocks run on the main thread's run loop, in order; they must not wait.
  static DispatchQueue& main();
  /// Blocks run in order, one at a time, on any worker of the global pool. Blocks that are queued when the
  /// queue is destroyed still run. `label` names the
  /// worker in debuggers while it serves the queue.
  static std::unique_ptr<DispatchQueue> serial(std::string label);

  virtual ~DispatchQueue() = default;
  virtual void async(Block block) = 0;
};
