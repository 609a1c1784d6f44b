#include "foundation/Fatal.h"

#include <cstdio>
#include <cstdlib>

void fatalInvariant(std::string_view invariant, std::source_location where) {
  std::fprintf(stderr, "fatal: broken invariant: %.*s (%s, %s:%u)\n", static_cast<int>(invariant.size()),
               invariant.data(), where.function_name(), where.file_name(),
               static_cast<unsigned>(where.line()));
  std::fflush(nullptr);
  std::abort();
}
