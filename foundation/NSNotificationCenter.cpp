#include "foundation/NSNotificationCenter.h"

#include "foundation/NSThread.h"

NSNotificationCenter& NSNotificationCenter::defaultCenter() {
  static auto& center = *new NSNotificationCenter;
  return center;
}

void NSNotificationCenter::addObserver(const void* observer, std::string_view name, const NSObject* object,
                                       Handler handler) {
  auto registration = std::make_shared<Registration>();
  registration->observer = observer;
  registration->name = name;
  registration->object = object;
  registration->handler = std::move(handler);
  const std::lock_guard lock(mutex_);
  registrations_.push_back(std::move(registration));
}

void NSNotificationCenter::removeObserver(const void* observer, std::string_view name) {
  std::vector<std::shared_ptr<Registration>>
      removed;  // declared first: handlers are destroyed after the lock
  const std::lock_guard lock(mutex_);
  std::erase_if(registrations_, [&](const auto& registration) {
    if (registration->observer != observer || (!name.empty() && registration->name != name)) return false;
    registration->isRemoved = true;
    removed.push_back(registration);
    return true;
  });
}

void NSNotificationCenter::post(const NSNotification& notification) {
  std::vector<std::shared_ptr<Registration>> registrations;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& registration : registrations_) {
      const bool isAbout = !registration->object || registration->object == notification.object.get();
      if (isAbout && registration->name == notification.name) registrations.push_back(registration);
    }
  }
  for (const auto& registration : registrations) {
    {
      const std::lock_guard lock(mutex_);
      if (registration->isRemoved) continue;  // by an earlier observer
    }
    runGuarded([&] { registration->handler(notification); });
  }
}
