#include "mount/PathLocks.h"

#include <algorithm>
#include <utility>

#include "mount/VolumePath.h"

namespace kzv::mount {

namespace {

bool conflict(const PathLocks::Claim& left, const PathLocks::Claim& right) {
  const bool leftCovers = left.kind == PathLocks::Kind::subtree && isAtOrBelow(right.key, left.key);
  const bool rightCovers = right.kind == PathLocks::Kind::subtree && isAtOrBelow(left.key, right.key);
  return leftCovers || rightCovers;
}

}  // namespace

PathLocks::Hold::Hold(Hold&& other) noexcept
    : locks_(std::exchange(other.locks_, nullptr)), place_(other.place_) {}

PathLocks::Hold& PathLocks::Hold::operator=(Hold&& other) noexcept {
  std::swap(locks_, other.locks_);
  std::swap(place_, other.place_);
  return *this;
}

PathLocks::Hold::~Hold() {
  if (locks_) locks_->release(place_);
}

bool PathLocks::isFree(const std::vector<Claim>& claims) const {
  return std::none_of(held_.begin(), held_.end(), [&](const std::vector<Claim>& others) {
    return std::any_of(others.begin(), others.end(), [&](const Claim& other) {
      return std::any_of(claims.begin(), claims.end(),
                         [&](const Claim& claim) { return conflict(claim, other); });
    });
  });
}

PathLocks::Hold PathLocks::hold(std::vector<Claim> claims) {
  MutexLock lock(mutex_);
  released_.wait(lock, [&]() KZV_REQUIRES(mutex_) { return isFree(claims); });
  return {*this, held_.insert(held_.end(), std::move(claims))};
}

std::optional<PathLocks::Hold> PathLocks::hold(std::vector<Claim> claims,
                                               const std::function<bool()>& isInterrupted) {
  constexpr std::chrono::milliseconds tick{50};
  MutexLock lock(mutex_);
  while (!released_.waitFor(lock, tick, [&]() KZV_REQUIRES(mutex_) { return isFree(claims); })) {
    if (isInterrupted()) return std::nullopt;
  }
  return Hold{*this, held_.insert(held_.end(), std::move(claims))};
}

void PathLocks::release(Hold::Place place) {
  {
    const MutexLock lock(mutex_);
    held_.erase(place);
  }
  released_.notifyAll();
}

}  // namespace kzv::mount
