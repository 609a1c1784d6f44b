#pragma once
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/NSObject.h"

/// Posted on the monitor's own thread with the Reachability object whenever its status changes.
inline constexpr std::string_view kReachabilityChangedNotification =
    "kNetworkReachabilityChangedNotification";

enum class NetworkStatus : int { notReachable = 0, reachableViaWiFi = 1, reachableViaWWAN = 2 };

/// Whether a host can be reached according to the desktop's network monitor, which looks at routes and sends
/// no packets. A host on this machine (localhost, 127.0.0.0/8, ::1) is always reachable. Must be held in a
/// shared_ptr: notifications carry it, and none is posted after its destruction.
class Reachability final : public NSObject, public std::enable_shared_from_this<Reachability> {
 public:
  /// Where the status comes from. start() begins to call `changed` (any thread, until the process ends)
  /// whenever status() may have changed; it returns false when it cannot. status() may be called from any
  /// thread. May serve several monitors, each of which calls start() once.
  class Source {
   public:
    virtual ~Source() = default;
    virtual NetworkStatus status() const = 0;
    virtual bool start(std::function<void()> changed) = 0;
  };

  /// @param hostName  a host name or an address literal.
  static std::shared_ptr<Reachability> reachabilityWithHostName(const std::string& hostName);
  explicit Reachability(std::shared_ptr<Source> source);

  /// Begins to post kReachabilityChangedNotification; does not wait. True also when it had begun before,
  /// false when the monitor could not be started.
  bool startNotifier();
  /// Until the notifier has been started, and until the desktop has answered, a host counts as reachable.
  NetworkStatus currentReachabilityStatus() const { return source_->status(); }

 private:
  const std::shared_ptr<Source> source_;
  std::atomic<bool> isStarted_ = false;
};
