#pragma once
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/Monitor.h"
#include "foundation/NSObject.h"

/// How a value hung on an object is held: not at all (the caller keeps it alive), or retained.
enum class AssociationPolicy { assign, retainAtomic };

/// What an object carries beside its own fields: a monitor for `synced`, and values under key objects. Made
/// on first use, freed with the object. All members may be called from any thread.
class ObjectExtension {
 public:
  /// The extension of `object`, made when it has none. Lives as long as the object.
  static ObjectExtension& of(const NSObject& object);
  /// The extension of `object`, or null when it never needed one.
  static ObjectExtension* ifPresent(const NSObject& object) noexcept;
  static void destroy(ObjectExtension* extension) noexcept;

  Monitor& monitor() noexcept { return monitor_; }

  /// Stores `value` under the identity of `key`; an empty value removes the entry. The old value is released
  /// after the new one is in place and outside the lock, so that its destructor may use the same object.
  void setAssociated(const NSObject* key, id value, AssociationPolicy policy);
  /// The value under the identity of `key`, or nothing. A retained value stays alive for as long as the
  /// reader holds it.
  id associated(const NSObject* key) const;

 private:
  struct Association {
    const NSObject* key;
    id value;
  };
  Monitor monitor_;
  mutable std::mutex mutex_;
  std::vector<Association>
      associations_;  // guarded by mutex_; a request hangs at most eight, so a line is quickest
};
