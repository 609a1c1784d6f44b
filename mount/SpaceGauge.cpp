#include "mount/SpaceGauge.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"

namespace kzv::mount {

SpaceGauge::SpaceGauge(std::shared_ptr<FSPlugin> volume, std::chrono::milliseconds maxAge)
    : volume_(std::move(volume)), maxAge_(maxAge) {}

Result<SpaceGauge::Space> SpaceGauge::space() {
  MutexLock lock(mutex_);
  answered_.wait(lock, [this]() KZV_REQUIRES(mutex_) { return space_ || !isAsking_; });
  const bool isRecent = askedAt_ && std::chrono::steady_clock::now() - *askedAt_ < maxAge_;
  if (!isRecent && !isAsking_) {
    isAsking_ = true;
    lock.unlock();
    const auto newer = ask();
    lock.lock();
    isAsking_ = false;
    askedAt_ = std::chrono::steady_clock::now();
    if (newer) space_ = newer;
    answered_.notifyAll();
  }
  return space_ ? Result<Space>{*space_, 0} : Result<Space>{{}, EIO};
}

std::optional<SpaceGauge::Space> SpaceGauge::ask() const {
  NSErrorRef error;
  const auto attributes = volume_->fsAttributes("/", &error);
  if (!attributes) return std::nullopt;
  const auto bytes = [&](std::string_view key) -> std::uint64_t {
    const auto number = as<NSNumber>(attributes->objectForKey(key));
    return number ? static_cast<std::uint64_t>(std::max<std::int64_t>(number->int64Value(), 0)) : 0;
  };
  return Space{bytes(NSFileSystemSize), bytes(NSFileSystemFreeSize)};
}

}  // namespace kzv::mount
