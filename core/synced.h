#pragma once
#include <mutex>
#include <utility>

#include "foundation/ObjectExtension.h"

/// Runs `body` while holding the recursive lock that belongs to the object `lock`, and returns its result.
/// Blocks. The object must outlive the call.
template <class Body>
decltype(auto) synced(const NSObject& lock, Body&& body) {
  const std::lock_guard held(ObjectExtension::of(lock).monitor());
  return std::forward<Body>(body)();
}
