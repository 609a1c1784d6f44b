#include "service/ConnectionThreads.h"

#include <cstdio>
#include <system_error>

namespace kzv::service {
namespace {

constexpr std::size_t kMaxThreads = 4096;

}  // namespace

void ConnectionThreads::enqueue(std::function<void()> task) {
  const std::lock_guard<std::mutex> lock(mutex_);
  tasks_.push_back(std::move(task));
  const bool needsThread = idle_ < tasks_.size() && threads_.size() < kMaxThreads;
  if (!needsThread || !startThread()) wake_.notify_one();
}

// Where the system has no thread to give, the task waits for the next one that becomes free.
bool ConnectionThreads::startThread() {
  try {
    threads_.emplace_back([this] { work(); });
    return true;
  } catch (const std::system_error& failure) {
    std::fprintf(stderr, "kzv-service: no further thread: %s\n", failure.what());
    return false;
  }
}

void ConnectionThreads::shutdown() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (auto& thread : threads_) thread.join();
}

void ConnectionThreads::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    --idle_;
    if (tasks_.empty()) return;
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
  }
}

}  // namespace kzv::service
