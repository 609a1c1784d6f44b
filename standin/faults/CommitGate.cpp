#include "standin/faults/CommitGate.h"

#include <chrono>
#include <thread>

#include "standin/ServiceState.h"
#include "standin/api/Commit.h"

namespace kzv::standin {

namespace {

constexpr std::string_view kTag = "too_many_write_operations";

[[noreturn]] void refuse(const ServiceState& state, const std::optional<Tags>& outer) {
  if (state.settings.contentionStatus != 409) failRateLimited(kTag, 1);
  if (!outer) throw WriteRefused({kTag});
  Tags tags = *outer;
  tags.push_back(kTag);
  failEndpoint(tags);
}

}  // namespace

bool CommitGate::mustRefuse(const ServiceState& state, std::int64_t tree) {
  if (inside_[tree] == 0) return false;
  return state.settings.singleWriter || (state.settings.writeContention && ++meetings_ % 2 == 1);
}

CommitGate::Pass::Pass(ServiceState& state, std::int64_t tree, const std::optional<Tags>& outer)
    : gate_(state.commitGate), tree_(tree) {
  {
    const std::lock_guard<std::mutex> lock(gate_.mutex_);
    if (gate_.mustRefuse(state, tree)) refuse(state, outer);
    ++gate_.inside_[tree];
  }
  const std::int64_t delayMs = state.settings.commitDelayMs;
  if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
}

CommitGate::Pass::~Pass() {
  const std::lock_guard<std::mutex> lock(gate_.mutex_);
  --gate_.inside_[tree_];
}

}  // namespace kzv::standin
