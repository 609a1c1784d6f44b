#pragma once
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "mount/KernelCache.h"

namespace kzv::mount {

/// Remembers the invalidations that a mount sends.
class FakeKernel final : public KernelCache {
 public:
  void invalidateEntry(NodeId folder, const std::string& name) override {
    note("entry " + std::to_string(folder) + " " + name);
  }
  void invalidateContent(NodeId file) override { note("content " + std::to_string(file)); }
  void invalidateListing(NodeId folder) override { note("listing " + std::to_string(folder)); }

  /// Waits, within bounds, for an invalidation; it then counts as not sent.
  bool took(const std::string& invalidation) {
    std::unique_lock lock(mutex_);
    const bool came =
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return notes_.contains(invalidation); });
    notes_.erase(invalidation);
    return came;
  }
  std::set<std::string> takeAll() {
    const std::lock_guard lock(mutex_);
    return std::exchange(notes_, {});
  }

 private:
  void note(std::string invalidation) {
    {
      const std::lock_guard lock(mutex_);
      notes_.insert(std::move(invalidation));
    }
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::string> notes_;  // guarded by mutex_
};

}  // namespace kzv::mount
