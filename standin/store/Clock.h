#pragma once

#include <atomic>
#include <cstdint>

namespace kzv::standin {

/// The service's wall clock: the system's plus an offset that tests set to make tokens and sessions expire.
/// Thread-safe.
class Clock {
 public:
  /// Seconds since the epoch, UTC.
  std::int64_t now() const;
  void setOffset(std::int64_t seconds) { offsetSeconds_ = seconds; }

 private:
  std::atomic<std::int64_t> offsetSeconds_{0};
};

}  // namespace kzv::standin
