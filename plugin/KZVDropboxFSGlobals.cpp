#include "plugin/KZVDropboxFSGlobals.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "sdk/DBServiceHosts.h"

namespace {

// The name of the plug-in's settings suite.
constexpr const char* bundleIdentifier = "org.kzv.KZVDropboxFS";

const char* fromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

/// Accounts belong to the origin that issued their tokens, and so do settings about them: each stand-in of
/// the service has a suite of its own.
std::string suiteName() {
  std::string name = bundleIdentifier;
  const std::string origin = DBServiceHosts::fromEnvironment().origin;
  if (!origin.empty()) name += "@" + origin;
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

}  // namespace

const std::string& KZVDropboxFSAppKey() {
  static const auto& key = *new std::string([] {
    const char* own = fromEnvironment("KZV_APP_KEY");
    return own ? own : "k3q9w2zt7m1xa0p";
  }());
  return key;
}

const std::string& KZVDropboxFSAppSecret() {
  static const auto& secret = *new std::string(fromEnvironment("KZV_APP_KEY") ? "" : "5brhy8cn2l0qsue");
  return secret;
}

Guarded<std::optional<std::string>>& KZVDropboxFSDesktopUserID() {
  static auto& value = *new Guarded<std::optional<std::string>>;
  return value;
}

Guarded<std::optional<std::string>>& KZVDropboxFSDesktopPath() {
  static auto& value = *new Guarded<std::optional<std::string>>;
  return value;
}

Guarded<UserList>& KZVDropboxFSUserList() {
  static auto& list = *new Guarded<UserList>;
  return list;
}

const NSObject& KZVDropboxFSUserListLock() {
  static const auto& lock = *new NSObject;
  return lock;
}

DispatchQueue& KZVDropboxQueue() {
  static auto& queue = *DispatchQueue::serial("KZVDropboxQueue").release();
  return queue;
}

const std::shared_ptr<NSUserDefaults>& KZVDropboxUserDefaults() {
  static const auto& defaults =
      *new std::shared_ptr<NSUserDefaults>(NSUserDefaults::initWithSuiteName(suiteName()));
  return defaults;
}

Guarded<std::shared_ptr<Reachability>>& KZVDropboxReachability() {
  static auto& monitor = *new Guarded<std::shared_ptr<Reachability>>;
  return monitor;
}

Guarded<std::shared_ptr<NSThread>>& dropboxOperationsThread() {
  static auto& thread = *new Guarded<std::shared_ptr<NSThread>>;
  return thread;
}

bool longPollIsEnabled() {
  static const bool isEnabled = [] {
    const char* chosen = fromEnvironment("KZV_LONG_POLL");
    return !chosen || std::string_view(chosen) != "0";
  }();
  return isEnabled;
}

double deltaUpdateInterval() {
  static const double interval = [] {
    const char* chosen = fromEnvironment("KZV_POLL_SECONDS");
    const double seconds = chosen ? std::strtod(chosen, nullptr) : 0;
    return seconds > 0 ? std::clamp(seconds, 0.05, 86'400.0) : 30.0;
  }();
  return interval;
}
