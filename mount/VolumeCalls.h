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

/// Calls to the volume from the threads of a mount: retried while a failure may be temporary, ended when the
/// mount stops, failures as errno values (0: none). Any thread; calls block until the volume has answered.
class VolumeCalls {
 public:
  /// @param isLinked  called when the volume fails without an error. Empty: always linked.
  /// @param retryDelays  before the second, third, ... attempt.
  VolumeCalls(std::shared_ptr<FSPlugin> volume, IsLinked isLinked,
              std::vector<std::chrono::milliseconds> retryDelays);

  FSPlugin& volume() const { return *volume_; }
  const std::shared_ptr<FSPlugin>& sharedVolume() const { return volume_; }

  /// Ends current and later waits and retries. Does not block.
  void stop();
  bool isStopping() const { return isStopping_; }
  /// Waits for `time`; false when interrupted or the mount stops.
  bool pause(std::chrono::milliseconds time, const IsInterrupted& isInterrupted);

  /// Calls `call` until it returns true or fails permanently. EINTR when interrupted between two attempts.
  int attempt(const IsInterrupted& isInterrupted, const std::function<bool(NSErrorRef*)>& call);
  /// The errno value for a failed call.
  int errnoFor(const NSErrorRef& error) const;

  /// Removes an item; succeeds if it does not exist.
  int remove(const std::string& path, const IsInterrupted& isInterrupted);
  int move(const std::string& from, const std::string& to, const IsInterrupted& isInterrupted);
  Result<FSItems> list(const std::string& folder, const IsInterrupted& isInterrupted);
  /// Whether the volume now has another version of the file than `version` (empty: false). One attempt; false
  /// if it fails.
  bool isReplaced(const std::string& path, const std::string& version);

 private:
  const std::shared_ptr<FSPlugin> volume_;
  const IsLinked isLinked_;
  const std::vector<std::chrono::milliseconds> retryDelays_;
  std::atomic<bool> isStopping_{false};
  Mutex mutex_;  // only for waiting on stopped_
  Condition stopped_;
};

}  // namespace kzv::mount
