#include "mount/kernel/KernelNotices.h"

#include <algorithm>
#include <utility>

#include "foundation/NSThread.h"

namespace kzv::mount {

KernelNotices::~KernelNotices() { stop(); }

void KernelNotices::start() {
  thread_ = std::thread([this] {
    setCurrentThreadName("kzv-notices");
    run();
  });
}

void KernelNotices::stop() {
  {
    const MutexLock lock(mutex_);
    isStopped_ = true;
  }
  changed_.notifyAll();
  if (thread_.joinable()) thread_.join();
}

void KernelNotices::addFor(NodeId folder, std::function<void()> send) {
  {
    const MutexLock lock(mutex_);
    if (isStopped_) return;
    notices_.push_back({folder, std::move(send), std::chrono::steady_clock::now() + maxWait_});
  }
  changed_.notifyOne();
}

std::deque<KernelNotices::Notice>::iterator KernelNotices::next() {
  const auto now = std::chrono::steady_clock::now();
  return std::find_if(notices_.begin(), notices_.end(), [&](const Notice& notice) KZV_REQUIRES(mutex_) {
    return !requestsByFolder_.contains(notice.folder) || now > notice.latest;
  });
}

void KernelNotices::run() {
  MutexLock lock(mutex_);
  while (!isStopped_) {
    const auto notice = next();
    if (notice == notices_.end()) {
      changed_.waitUntil(lock, std::chrono::steady_clock::now() + maxWait_);
      continue;
    }
    const auto send = std::move(notice->send);
    notices_.erase(notice);
    lock.unlock();
    send();
    lock.lock();
  }
}

KernelNotices::FolderUse::FolderUse(KernelNotices& notices, NodeId folder)
    : notices_(notices), folder_(folder) {
  const MutexLock lock(notices_.mutex_);
  ++notices_.requestsByFolder_[folder_];
}

KernelNotices::FolderUse::~FolderUse() {
  {
    const MutexLock lock(notices_.mutex_);
    auto& requests = notices_.requestsByFolder_;
    if (const auto found = requests.find(folder_); --found->second == 0) requests.erase(found);
  }
  notices_.changed_.notifyOne();
}

}  // namespace kzv::mount
