#pragma once
#include <utility>
#include <vector>

#include "foundation/NSObject.h"

/// Releases the members of a container that is being destroyed: recursively down to a nesting of `deepest`,
/// below that iteratively, because data from outside may be nested deeper than the stack allows. Any thread.
class ContainerTeardown {
 public:
  using Items = std::vector<id>;
  using Entries = std::vector<std::pair<id, id>>;

  static void release(Items& items) noexcept;
  static void release(Entries& entries) noexcept;
};
