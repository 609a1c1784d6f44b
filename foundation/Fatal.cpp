#include "foundation/Fatal.h"

#include <cstdio>
#include <cstdlib>

void fatalInvariant(std::string_view invariant, const char* function, const char* file, int line) {
  std::fprintf(stderr, "fatal: broken invariant: %.*s (%s, %s:%d)\n", static_cast<int>(invariant.size()),
               invariant.data(), function, file, line);
  std::fflush(stderr);
  std::abort();
}
