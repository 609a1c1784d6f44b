#pragma once
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSDictionary.h"
#include "foundation/NSObject.h"

struct NSNotification {
  std::string name;
  id object;                               // the sender; may be empty
  std::shared_ptr<NSDictionary> userInfo;  // may be empty
  /// For logs: only the name, since user info may be confidential.
  std::string description() const { return name; }
};

/// Notifies observers of an event, synchronously on the poster's thread, in the order of their registration;
/// post returns after the last one. No lock is held while handlers run. Any thread.
class NSNotificationCenter {
 public:
  using Handler = std::function<void(const NSNotification&)>;
  static NSNotificationCenter& defaultCenter();

  /// @param observer  identifies the registration for removeObserver; not retained, not dereferenced.
  /// @param object    only notifications about this object are delivered; null for all.
  void addObserver(const void* observer, std::string_view name, const NSObject* object, Handler handler);
  /// Removes every registration of `observer`; with a name only those for it. An observer may remove itself
  /// (or another) from its handler; a handler that is running on another thread may still finish.
  void removeObserver(const void* observer, std::string_view name = {});
  /// An exception that leaves a handler is logged, and the other observers are still notified. Observers
  /// added meanwhile are not notified of this one.
  void post(const NSNotification& notification);

 private:
  struct Registration {
    const void* observer;
    std::string name;
    const NSObject* object;
    Handler handler;
    bool isRemoved = false;  // guarded by mutex_
  };
  std::mutex mutex_;
  std::vector<std::shared_ptr<Registration>> registrations_;  // guarded by mutex_
};
