#pragma once
#include <chrono>
#include <string>
#include <string_view>

#include "core/copy/CopyBatch.h"

namespace kzv::cli {

/// The rate of a transfer, smoothed over some seconds. One thread at a time.
class TransferRate {
 public:
  using Clock = std::chrono::steady_clock;
  void add(std::uint64_t bytesDone, Clock::time_point now);
  /// 0 while unknown.
  double bytesPerSecond() const noexcept { return bytesPerSecond_; }

 private:
  Clock::time_point lastTime_{};
  std::uint64_t lastBytes_ = 0;
  double bytesPerSecond_ = 0;
};

/// "[####----]  45%  12.3 MB of 27 MB  1.2 MB/s  0:12 left  3 of 7 files", shortened to `width` characters.
std::string progressLine(const copy::CopyCounts& counts, double bytesPerSecond, std::size_t width);

}  // namespace kzv::cli
