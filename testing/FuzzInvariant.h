#pragma once
#include <cstdio>
#include <cstdlib>

/// Ends a fuzz target whose input broke a promise of the code under test; the fuzzer keeps the input.
inline void requireThat(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}
