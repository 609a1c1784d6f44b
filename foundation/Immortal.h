#pragma once
#include <memory>

#include "foundation/NSObject.h"

/// A reference to a shared value object that is never destroyed. It has no reference count, so copying it
/// costs no atomic operation and threads do not contend for a counter. Its use_count is 0, and a weak_ptr
/// made from it is empty; no value object needs either.
template <class Value>
std::shared_ptr<Value> immortal(const Value& object) {
  return std::shared_ptr<Value>(std::shared_ptr<void>(), const_cast<Value*>(&object));
}
