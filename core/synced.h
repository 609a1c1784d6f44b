#pragma once
#include <mutex>
#include <utility>

#include "foundation/ObjectExtension.h"

/// Runs `body` while holding the lock that belongs to `lock` (the object, not the variable) and returns what
/// it returns. Recursive for the owning thread. The object must outlive the call.
template <class Body>
decltype(auto) synced(const NSObject& lock, Body&& body) {
  const std::lock_guard held(ObjectExtension::of(lock).monitor());
  return std::forward<Body>(body)();
}
