#pragma once
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/Monitor.h"
#include "foundation/NSObject.h"

/// How an associated value is held: unretained (the caller keeps it alive) or retained.
enum class AssociationPolicy { assign, retainAtomic };

/// Optional parts of an object: a monitor for `synced`, and associated values. Created on first use, freed
/// with the object. Any thread.
class ObjectExtension {
 public:
  /// The extension of `object`, created if it has none. Lives as long as the object.
  static ObjectExtension& of(const NSObject& object);
  /// The extension of `object`, or null when it has none.
  static ObjectExtension* ifPresent(const NSObject& object) noexcept;
  static void destroy(ObjectExtension* extension) noexcept;

  Monitor& monitor() noexcept { return monitor_; }

  /// Stores `value` under the identity of `key`; an empty value removes the entry. The old value is released
  /// afterwards, without the lock, so its destructor may use the same object.
  void setAssociated(const NSObject* key, id value, AssociationPolicy policy);
  /// The value under the identity of `key`, or nothing. A retained value stays alive for as long as the
  /// caller holds it.
  id associated(const NSObject* key) const;

 private:
  struct Association {
    const NSObject* key;
    id value;
  };
  Monitor monitor_;
  mutable std::mutex mutex_;
  std::vector<Association>
      associations_;  // guarded by mutex_; searched linearly, since a request has at most eight
};
