#pragma once

#include <cstdint>
#include <map>
#include <mutex>

namespace kzv::service {

struct ServiceState;

/// Stands around every commit to a tree. Writers are serialised by the Store anyway; this is where the real
/// service's impatience is imitated: with the setting `write_contention` every second of the commits that
/// meet is refused with 429 too_many_write_operations. Thread-safe.
class CommitGate {
 public:
  /// Held during a commit. Throws ApiError when refused.
  class Pass {
   public:
    Pass(ServiceState& state, std::int64_t tree);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    CommitGate& gate_;
    std::int64_t tree_;
  };

 private:
  std::mutex mutex_;
  std::map<std::int64_t, int> inside_;  // guarded by mutex_; commits under way by tree
  std::uint64_t meetings_ = 0;          // guarded by mutex_
};

}  // namespace kzv::service
