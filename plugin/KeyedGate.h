#pragma once
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

/// Lets one thread at a time through for each key. Any thread; waits without a time limit.
class KeyedGate {
 public:
  /// Holds the key for as long as it lives.
  class Pass {
   public:
    Pass(KeyedGate& gate, std::string key) : gate_(gate), key_(std::move(key)) {
      std::unique_lock lock(gate_.mutex_);
      gate_.freed_.wait(lock, [&] { return gate_.held_.insert(key_).second; });
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ~Pass() {
      {
        const std::lock_guard lock(gate_.mutex_);
        gate_.held_.erase(key_);
      }
      gate_.freed_.notify_all();
    }

   private:
    KeyedGate& gate_;
    const std::string key_;
  };

 private:
  std::mutex mutex_;
  std::condition_variable freed_;
  std::set<std::string> held_;  // guarded by mutex_
};
