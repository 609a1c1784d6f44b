#include "standin/store/Clock.h"

#include <chrono>

namespace kzv::standin {

std::int64_t Clock::now() const {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count() + offsetSeconds_;
}

}  // namespace kzv::standin
