#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "standin/api/ApiError.h"

namespace kzv::standin {

struct ServiceState;

/// Refuses concurrent commits to one tree with too_many_write_operations, as the service does: with the
/// setting `write_contention` every second commit that starts while another one is in progress, with
/// `single_writer` each. The status is 429 or, with `contention_status` 409, that of endpoint errors. (The
/// Store serializes writers in any case.) Thread-safe.
class CommitGate {
 public:
  /// Held during a commit. The constructor throws ApiError when the commit is refused. With status 409 the
  /// error's tag is nested in `outer`; if that is absent, it throws WriteRefused and the endpoint makes the
  /// error.
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
  std::map<std::int64_t, int> inside_;  // guarded by mutex_; commits in progress, by tree
  std::uint64_t meetings_ = 0;          // guarded by mutex_
};

}  // namespace kzv::standin
