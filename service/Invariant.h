#pragma once

#include <cstdio>
#include <cstdlib>

namespace kzv::service {

/// Stops the process when something holds no longer that this program relies on; going on would only spread
/// the damage into answers that tests trust. `name` says which invariant, for the person who reads stderr.
inline void requireInvariant(bool holds, const char* name) {
  if (holds) return;
  std::fprintf(stderr, "kzv-service: broken invariant: %s\n", name);
  std::abort();
}

}  // namespace kzv::service
