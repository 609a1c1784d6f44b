#include "service/ConnectionThreads.h"

namespace kzv::service {
namespace {

constexpr std::size_t kMaxThreads = 4096;

}  // namespace

void ConnectionThreads::enqueue(std::function<void()> task) {
  const std::lock_guard<std::mutex> lock(mutex_);
  tasks_.push_back(std::move(task));
  if (idle_ < tasks_.size() && threads_.size() < kMaxThreads) {
    threads_.emplace_back([this] { work(); });
  } else {
    wake_.notify_one();
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
