#pragma once
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/NSObject.h"

/// Posted on the network monitor's thread with the Reachability object when its status changes.
inline constexpr std::string_view kReachabilityChangedNotification =
    "kNetworkReachabilityChangedNotification";

enum class NetworkStatus : int { notReachable = 0, reachableViaWiFi = 1, reachableViaWWAN = 2 };

/// Whether a host is reachable according to the desktop's network monitor, which checks routes and sends no
/// packets. A host on this machine (localhost, 127.0.0.0/8, ::1) is always reachable. Must be held in a
/// shared_ptr: notifications carry it; none is posted after its destruction.
class Reachability final : public NSObject, public std::enable_shared_from_this<Reachability> {
 public:
  /// Provides the status. After start(), `changed` is called (on any thread, until the process ends) when
  /// status() may have changed; false when that is impossible. status() may be called from any thread. A
  /// source may serve several Reachability objects, each of which calls start() once.
  class Source {
   public:
    virtual ~Source() = default;
    virtual NetworkStatus status() const = 0;
    virtual bool start(std::function<void()> changed) = 0;
  };

  /// @param hostName  a host name or an address literal.
  static std::shared_ptr<Reachability> reachabilityWithHostName(const std::string& hostName);
  explicit Reachability(std::shared_ptr<Source> source);

  /// Starts posting kReachabilityChangedNotification; does not block. True also when already started, false
  /// when the monitor could not be started.
  bool startNotifier();
  /// Reachable until the notifier has been started and the desktop has reported.
  NetworkStatus currentReachabilityStatus() const { return source_->status(); }

 private:
  const std::shared_ptr<Source> source_;
  std::atomic<bool> isStarted_ = false;
};
