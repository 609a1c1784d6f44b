#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include <httplib.h>

namespace kzv::service {

/// Starts a thread whenever none is idle. With a fixed pool, idle keep-alive connections or ordered delays
/// would hold every thread while a new request waits. Thread-safe.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> task) override;
  /// Runs what is queued, then ends all threads. Blocks.
  void shutdown() override;

 private:
  bool startThread();
  void work();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::list<std::function<void()>> tasks_;  // guarded by mutex_
  std::list<std::thread> threads_;          // guarded by mutex_ until shutdown()
  std::size_t idle_ = 0;                    // guarded by mutex_
  bool stopping_ = false;                   // guarded by mutex_
};

}  // namespace kzv::service
