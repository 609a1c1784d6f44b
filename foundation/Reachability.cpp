#include "foundation/Reachability.h"

#include <mutex>
#include <thread>
#include <utility>

#include <gio/gio.h>

#include "foundation/NSNotificationCenter.h"
#include "foundation/NSThread.h"

namespace {

bool isLoopback(const std::string& hostName) {
  return hostName == "localhost" || hostName == "::1" || hostName == "[::1]" || hostName.starts_with("127.");
}

/// A host on this machine: nothing between here and there can fail.
class LoopbackSource final : public Reachability::Source {
 public:
  NetworkStatus status() const override { return NetworkStatus::reachableViaWiFi; }
  bool start(std::function<void()>) override { return true; }
};

/// The desktop's network monitor. Its signals come out of a GLib main loop, which gets a thread of its own,
/// once a process, and only when a host beyond this machine is watched.
class DesktopSource final : public Reachability::Source {
 public:
  NetworkStatus status() const override { return status_.load(); }

  bool start(std::function<void()> changed) override {
    const std::lock_guard lock(mutex_);
    if (std::exchange(isStarted_, true)) return false;
    changed_ = std::move(changed);
    std::thread([this] { watch(); }).detach();
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
    if (source->status_.exchange(now) != now) source->changed_();
  }

  void watch() {
    setCurrentThreadName("kzv-network");
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(
        context);  // before the monitor is made: its signals come to this context
    GNetworkMonitor* monitor = g_network_monitor_get_default();
    g_signal_connect(monitor, "network-changed", G_CALLBACK(networkChanged), this);
    networkChanged(monitor, 0, this);
    g_main_loop_run(g_main_loop_new(context, 0));
  }

  std::mutex mutex_;
  bool isStarted_ = false;         // guarded by mutex_
  std::function<void()> changed_;  // set before the thread starts
  // Until the monitor has spoken the network counts as there: a request then finds out.
  std::atomic<NetworkStatus> status_{NetworkStatus::reachableViaWiFi};
};

}  // namespace

Reachability::Reachability(std::shared_ptr<Source> source)
    : source_(std::move(source)), self_(std::make_shared<std::atomic<Reachability*>>(this)) {}

Reachability::~Reachability() { self_->store(nullptr); }

std::shared_ptr<Reachability> Reachability::reachabilityWithHostName(const std::string& hostName) {
  if (isLoopback(hostName)) return std::make_shared<Reachability>(std::make_shared<LoopbackSource>());
  return std::make_shared<Reachability>(DesktopSource::shared());
}

bool Reachability::startNotifier() {
  return source_->start([self = self_] {
    Reachability* monitor = self->load();
    if (!monitor) return;
    NSNotification notification;
    notification.name = kReachabilityChangedNotification;
    notification.object = id(id(), monitor);  // not retained: the process keeps its monitors
    NSNotificationCenter::defaultCenter().post(notification);
  });
}
