#pragma once
#include <utility>
#include <vector>

#include "foundation/NSObject.h"

/// Releases the members of a container that is being destroyed, here and now while the stack is shallow, and
/// in turn once containers have been nested `deepest` times: data read from outside may be nested deeper than
/// the stack. Any thread.
class ContainerTeardown {
 public:
  using Items = std::vector<id>;
  using Entries = std::vector<std::pair<id, id>>;

  static void release(Items& items) noexcept;
  static void release(Entries& entries) noexcept;
};
