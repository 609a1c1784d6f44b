#pragma once

#include <cstdio>
#include <cstdlib>

namespace kzv::standin {

/// Aborts the process when an invariant does not hold, instead of giving wrong answers. `name` is printed on
/// stderr.
inline void requireInvariant(bool holds, const char* name) {
  if (holds) return;
  std::fprintf(stderr, "kzv-service: broken invariant: %s\n", name);
  std::abort();
}

}  // namespace kzv::standin
