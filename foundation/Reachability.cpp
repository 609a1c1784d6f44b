#include "foundation/Reachability.h"

#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "foundation/NSLog.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSThread.h"

namespace {

bool isLoopback(const std::string& hostName) {
  return hostName == "localhost" || hostName == "::1" || hostName == "[::1]" || hostName.starts_with("127.");
}

/// A host on this machine, always reachable.
class LoopbackSource final : public Reachability::Source {
 public:
  NetworkStatus status() const override { return NetworkStatus::reachableViaWiFi; }
  bool start(std::function<void()>) override { return true; }
};

/// The desktop's network monitor. Its signals need a GLib main loop, which runs on one thread per process,
/// started when the first remote host is watched.
class DesktopSource final : public Reachability::Source {
 public:
  NetworkStatus status() const override { return status_.load(); }

  bool start(std::function<void()> changed) override {
    const std::lock_guard lock(mutex_);
    if (!isWatching_) {
      try {
        std::thread([this] { watch(); }).detach();
      } catch (const std::system_error& failure) {
        NSLog(NSLogLevel::error, "Reachability", failure.what());
        return false;
      }
    }
    isWatching_ = true;
    listeners_.push_back(std::move(changed));
    return true;
  }

  static const std::shared_ptr<DesktopSource>& shared() {
    static const auto& source = *new std::shared_ptr<DesktopSource>(std::make_shared<DesktopSource>());
    return source;
  }

 private:
  static NetworkStatus statusOf(GNetworkMonitor* monitor) {
    if (!g_network_monitor_get_network_available(monitor)) return NetworkStatus::notReachable;
    return g_network_monitor_get_network_metered(monitor) ? NetworkStatus::reachableViaWWAN
                                                          : NetworkStatus::reachableViaWiFi;
  }

  static void networkChanged(GNetworkMonitor* monitor, gboolean, gpointer self) {
    auto* source = static_cast<DesktopSource*>(self);
    const NetworkStatus now = statusOf(monitor);
    if (source->status_.exchange(now) != now) source->notifyListeners();
  }

  void notifyListeners() {
    std::vector<std::function<void()>> listeners;
    {
      const std::lock_guard lock(mutex_);
      listeners = listeners_;
    }
    for (const auto& changed : listeners) changed();
  }

  void watch() {
    setCurrentThreadName("kzv-network");
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);  // before the monitor is created: it signals in this context
    GNetworkMonitor* monitor = g_network_monitor_get_default();
    g_signal_connect(monitor, "network-changed", G_CALLBACK(networkChanged), this);
    networkChanged(monitor, 0, this);
    g_main_loop_run(g_main_loop_new(context, 0));
  }

  std::mutex mutex_;
  bool isWatching_ = false;                       // guarded by mutex_
  std::vector<std::function<void()>> listeners_;  // guarded by mutex_; one per Reachability
  // Assumed reachable until the monitor reports; a request would find out.
  std::atomic<NetworkStatus> status_{NetworkStatus::reachableViaWiFi};
};

}  // namespace

Reachability::Reachability(std::shared_ptr<Source> source) : source_(std::move(source)) {}

std::shared_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& hostName) {
  if (isLoopback(hostName)) return std::make_shared<Reachability>(std::make_shared<LoopbackSource>());
  return std::make_shared<Reachability>(DesktopSource::shared());
}

bool Reachability::startNotifier() {
  if (isStarted_.exchange(true)) return true;
  // The source may outlive this object, so it holds a weak reference, strong only while observers are
  // notified.
  const bool hasStarted = source_->start([weak = weak_from_this()] {
    NSNotification notification;
    notification.name = kReachabilityChangedNotification;
    notification.object = weak.lock();
    if (!notification.object) return;
    NSNotificationCenter::defaultCenter().post(notification);
  });
  if (!hasStarted) isStarted_ = false;
  return hasStarted;
}
