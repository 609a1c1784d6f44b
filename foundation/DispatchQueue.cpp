#include "foundation/DispatchQueue.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "foundation/NSLog.h"
#include "foundation/NSRunLoop.h"
#include "foundation/NSThread.h"

namespace {

constexpr const char* workerName = "kzv-worker";

class GlobalQueue final : public DispatchQueue {
 public:
  void async(Block block) override {
    bool needsWorker = false;
    {
      const std::lock_guard lock(mutex_);
      blocks_.push_back(std::move(block));
      needsWorker = blocks_.size() > idle_ && workers_ < maxWorkers;
      if (needsWorker) ++workers_;
    }
    if (needsWorker) {
      startWorker();
    } else {
      wakeUp_.notify_one();
    }
  }

 private:
  static constexpr std::size_t maxWorkers = 64;

  /// When the system cannot create a thread, the block stays queued for the next free worker; the next async
  /// tries again.
  void startWorker() {
    try {
      std::thread([this] { work(); }).detach();
    } catch (const std::system_error& failure) {
      {
        const std::lock_guard lock(mutex_);
        --workers_;
      }
      wakeUp_.notify_one();
      NSLog(NSLogLevel::error, "DispatchQueue", fmt::format("no further worker: {}", failure.what()));
    }
  }

  void work() {
    setCurrentThreadName(workerName);
    std::unique_lock lock(mutex_);
    while (true) {
      ++idle_;
      wakeUp_.wait(lock, [&] { return !blocks_.empty(); });
      --idle_;
      {
        const Block block = std::move(blocks_.front());
        blocks_.pop_front();
        lock.unlock();
        runGuarded(block);
      }  // the block is destroyed without the lock: its captures' destructors may call async
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::deque<Block> blocks_;  // guarded by mutex_
  std::size_t idle_ = 0;      // guarded by mutex_
  std::size_t workers_ = 0;   // guarded by mutex_
};

class MainQueue final : public DispatchQueue {
 public:
  void async(Block block) override { NSRunLoop::mainRunLoop()->perform(std::move(block)); }
};

class SerialQueue final : public DispatchQueue {
 public:
  explicit SerialQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {}

  void async(Block block) override {
    const std::lock_guard lock(state_->mutex);
    state_->blocks.push_back(std::move(block));
    if (std::exchange(state_->isDraining, true)) return;
    global().async([state = state_] { drain(*state); });
  }

 private:
  struct State {
    explicit State(std::string name) : label(std::move(name)) {}
    const std::string label;
    std::mutex mutex;
    std::deque<Block> blocks;  // guarded by mutex
    bool isDraining = false;   // guarded by mutex
  };

  static void drain(State& state) {
    setCurrentThreadName(state.label);
    std::unique_lock lock(state.mutex);
    while (!state.blocks.empty()) {
      {
        const Block block = std::move(state.blocks.front());
        state.blocks.pop_front();
        lock.unlock();
        runGuarded(block);
      }
      lock.lock();
    }
    state.isDraining = false;
    setCurrentThreadName(workerName);
  }

  const std::shared_ptr<State> state_;  // outlives the queue while a worker drains it
};

}  // namespace

// Never destroyed: workers still run while statics are destroyed.
DispatchQueue& DispatchQueue::global() {
  static auto& queue = *new GlobalQueue;
  return queue;
}

DispatchQueue& DispatchQueue::main() {
  static auto& queue = *new MainQueue;
  return queue;
}

std::unique_ptr<DispatchQueue> DispatchQueue::serial(std::string label) {
  return std::make_unique<SerialQueue>(std::move(label));
}
