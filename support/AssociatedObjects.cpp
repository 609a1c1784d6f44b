#include "support/AssociatedObjects.h"

#include "foundation/ObjectExtension.h"

void assignObj(const NSObject& object, const id& value, const NSObject& key) {
  ObjectExtension::of(object).setAssociated(&key, value, AssociationPolicy::assign);
}

void setObj(const NSObject& object, id value, const NSObject& key) {
  ObjectExtension::of(object).setAssociated(&key, std::move(value), AssociationPolicy::retainAtomic);
}

id objForKey(const NSObject& object, const NSObject& key) {
  const ObjectExtension* extension = ObjectExtension::ifPresent(object);
  return extension ? extension->associated(&key) : nullptr;
}
