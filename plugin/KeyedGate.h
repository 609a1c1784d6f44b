#pragma once
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "core/StoppableCall.h"

/// A mutex per key. Any thread; waits without a time limit.
class KeyedGate {
 public:
  /// Holds the key while it lives, unless the wait was ended.
  class Pass {
   public:
    /// @param shouldContinue  called every stopInterval while another thread holds the key; false ends the
    /// wait.
    Pass(KeyedGate& gate, std::string key, const std::function<bool()>& shouldContinue)
        : gate_(gate), key_(std::move(key)) {
      std::unique_lock lock(gate_.mutex_);
      while (!gate_.freed_.wait_for(lock, stopInterval, [this] { return take(); })) {
        lock.unlock();  // the caller's code runs without the lock
        if (!shouldContinue()) return;
        lock.lock();
      }
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ~Pass() {
      if (!isHeld_) return;
      {
        const std::lock_guard lock(gate_.mutex_);
        gate_.held_.erase(key_);
      }
      gate_.freed_.notify_all();
    }

    bool isHeld() const noexcept { return isHeld_; }

   private:
    bool take() { return isHeld_ = gate_.held_.insert(key_).second; }

    KeyedGate& gate_;
    const std::string key_;
    bool isHeld_ = false;
  };

 private:
  std::mutex mutex_;
  std::condition_variable freed_;
  std::set<std::string> held_;  // guarded by mutex_
};
