#pragma once
#include <functional>
#include <memory>
#include <string>

/// Runs blocks in the background. All queues may be used from any thread; async never blocks. Exceptions that
/// leave a block are logged and swallowed. A block's captures are destroyed before the next block of its
/// queue starts.
class DispatchQueue {
 public:
  using Block = std::function<void()>;

  /// The concurrent queue of default priority: a pool of up to 64 worker threads, because its blocks may
  /// block. Beyond that, or when the system has no more threads, blocks wait for a free worker. Blocks start
  /// in the order in which they were queued.
  static DispatchQueue& global();
  /// Blocks run on the main thread's run loop, in order; they must not block.
  static DispatchQueue& main();
  /// Blocks run in order, one at a time, on any worker of the global pool. Blocks that are queued when the
  /// queue is destroyed still run. `label` is the worker's thread name while it serves the queue.
  static std::unique_ptr<DispatchQueue> serial(std::string label);

  virtual ~DispatchQueue() = default;
  virtual void async(Block block) = 0;
};
