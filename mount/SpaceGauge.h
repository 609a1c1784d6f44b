#pragma once
#include <chrono>
#include <memory>
#include <optional>

#include "core/FSPlugin.h"
#include "foundation/Mutex.h"
#include "mount/Result.h"

namespace kzv::mount {

/// Size and free space of the volume, cached for a while. Any thread.
class SpaceGauge {
 public:
  struct Space {
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
  };

  /// @param maxAge  how long an answer is cached.
  SpaceGauge(std::shared_ptr<FSPlugin> volume, std::chrono::milliseconds maxAge);

  /// The last answer. When it is too old, one thread blocks to ask the volume; the others get the older
  /// answer, and block only while there is none. EIO if the volume has never answered.
  Result<Space> space();

 private:
  std::optional<Space> ask() const;

  const std::shared_ptr<FSPlugin> volume_;
  const std::chrono::milliseconds maxAge_;
  Mutex mutex_;
  Condition answered_;
  std::optional<Space> space_ KZV_GUARDED_BY(mutex_);
  std::optional<std::chrono::steady_clock::time_point> askedAt_ KZV_GUARDED_BY(mutex_);
  bool isAsking_ KZV_GUARDED_BY(mutex_) = false;
};

}  // namespace kzv::mount
