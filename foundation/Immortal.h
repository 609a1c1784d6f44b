#pragma once
#include <memory>

#include "foundation/NSObject.h"

/// A reference to a value object that is shared by everyone and never destroyed. It counts nothing: copying
/// it costs no atomic operation, and threads that use it do not contend for a counter. Its use_count is 0 and
/// a weak reference made from it is empty, which no value object is used for.
template <class Value>
std::shared_ptr<Value> immortal(const Value& object) {
  return std::shared_ptr<Value>(std::shared_ptr<void>(), const_cast<Value*>(&object));
}
