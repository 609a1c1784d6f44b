#include "foundation/ObjectExtension.h"

#include <algorithm>
#include <utility>

ObjectExtension* ObjectExtension::ifPresent(const NSObject& object) noexcept {
  return object.extension_.load(std::memory_order_acquire);
}

ObjectExtension& ObjectExtension::of(const NSObject& object) {
  if (ObjectExtension* present = ifPresent(object)) return *present;
  auto made = std::make_unique<ObjectExtension>();
  ObjectExtension* expected = nullptr;
  if (object.extension_.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel)) {
    return *made.release();
  }
  return *expected;  // another thread was first
}

void ObjectExtension::destroy(ObjectExtension* extension) noexcept { delete extension; }

void ObjectExtension::setAssociated(const NSObject* key, id value, AssociationPolicy policy) {
  if (policy == AssociationPolicy::assign && value)
    value = id(id(), value.get());  // an aliasing shared_ptr without ownership
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(associations_.begin(), associations_.end(),
                                  [&](const Association& association) { return association.key == key; });
  if (found == associations_.end()) {
    if (value) associations_.push_back({key, std::move(value)});
  } else {
    std::swap(found->value, value);  // the old value is destroyed with the argument, after the lock
    if (!found->value) associations_.erase(found);
  }
}

id ObjectExtension::associated(const NSObject* key) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(associations_.begin(), associations_.end(),
                                  [&](const Association& association) { return association.key == key; });
  return found == associations_.end() ? nullptr : found->value;
}
