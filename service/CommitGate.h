#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "service/ApiError.h"

namespace kzv::service {

struct ServiceState;

/// Stands around every commit to a tree. Writers are serialised by the Store anyway; this is where the real
/// service's impatience is imitated: with the setting `write_contention` every second of the commits that
/// meet is refused with too_many_write_operations, with `single_writer` each that meets another one. The
/// status is 429 or, with `contention_status` 409, that of the endpoint's own errors. Thread-safe.
class CommitGate {
 public:
  /// Held during a commit. When refused it throws ApiError; where the status is 409, the tag stands below
  /// `outer`, or a WriteRefused is thrown where the endpoint makes the error (nothing).
  class Pass {
   public:
    Pass(ServiceState& state, std::int64_t tree, const std::optional<Tags>& outer);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    CommitGate& gate_;
    std::int64_t tree_;
  };

 private:
  bool mustRefuse(const ServiceState& state, std::int64_t tree);

  std::mutex mutex_;
  std::map<std::int64_t, int> inside_;  // guarded by mutex_; commits under way by tree
  std::uint64_t meetings_ = 0;          // guarded by mutex_
};

}  // namespace kzv::service
