#pragma once
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "foundation/Mutex.h"
#include "mount/Result.h"

namespace kzv::mount {

/// Whether the account is still linked. Must not block.
using IsLinked = std::function<bool()>;

/// Calls of the volume from the threads of a mount: repeated while a failure may be temporary, ended when the
/// mount stops, failures as errno values (0: none). Any thread; calls block until the volume has answered.
class VolumeCalls {
 public:
  /// @param isLinked  asked when the volume fails without a reason. Empty: it always is.
  /// @param retryDelays  before the second, third, ... attempt.
  VolumeCalls(std::shared_ptr<FSPlugin> volume, IsLinked isLinked,
              std::vector<std::chrono::milliseconds> retryDelays);

  FSPlugin& volume() const { return *volume_; }
  const std::shared_ptr<FSPlugin>& sharedVolume() const { return volume_; }

  /// Ends waits and retries, now and later. Does not block.
  void stop();
  bool isStopping() const { return isStopping_; }
  /// Waits so long; false when it was interrupted or the mount stops.
  bool pause(std::chrono::milliseconds time, const IsInterrupted& isInterrupted);

  /// Runs `call` until it returns true or fails for good. EINTR when interrupted between two attempts.
  int attempt(const IsInterrupted& isInterrupted, const std::function<bool(NSErrorRef*)>& call);
  /// What the failure of a call means to a program.
  int errnoFor(const NSErrorRef& error) const;

  /// Removes an item; one that is not there is fine.
  int remove(const std::string& path, const IsInterrupted& isInterrupted);
  int move(const std::string& from, const std::string& to, const IsInterrupted& isInterrupted);
  Result<FSItems> list(const std::string& folder, const IsInterrupted& isInterrupted);
  /// Whether the volume has another version of the file now than `version` (empty: unknown, so no). Asks
  /// once; a failure counts as no.
  bool isReplaced(const std::string& path, const std::string& version);

 private:
  const std::shared_ptr<FSPlugin> volume_;
  const IsLinked isLinked_;
  const std::vector<std::chrono::milliseconds> retryDelays_;
  std::atomic<bool> isStopping_{false};
  Mutex mutex_;  // guards no value, only the wait for stop()
  Condition stopped_;
};

}  // namespace kzv::mount
