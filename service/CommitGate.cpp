#include "service/CommitGate.h"

#include <chrono>
#include <thread>

#include "service/ApiError.h"
#include "service/ServiceState.h"

namespace kzv::service {

CommitGate::Pass::Pass(ServiceState& state, std::int64_t tree) : gate_(state.commitGate), tree_(tree) {
  {
    const std::lock_guard<std::mutex> lock(gate_.mutex_);
    const bool meets = gate_.inside_[tree] > 0 && state.settings.writeContention;
    if (meets && ++gate_.meetings_ % 2 == 1) failRateLimited("too_many_write_operations", 1);
    ++gate_.inside_[tree];
  }
  const std::int64_t delayMs = state.settings.commitDelayMs;
  if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
}

CommitGate::Pass::~Pass() {
  const std::lock_guard<std::mutex> lock(gate_.mutex_);
  --gate_.inside_[tree_];
}

}  // namespace kzv::service
