#pragma once
#include <string_view>
#include <type_traits>
#include <utility>

/// Stops the process because an invariant of the program is broken: writes one line naming the invariant and
/// where it was tested to stderr, then aborts. For programming errors only; a failure of the outside world is
/// an NSError. Callable from any thread. The places fill themselves in; the compiler's own functions for
/// that, because clang 14, which builds the fuzz targets, has no std::source_location.
[[noreturn]] void fatalInvariant(std::string_view invariant, const char* function = __builtin_FUNCTION(),
                                 const char* file = __builtin_FILE(), int line = __builtin_LINE());

/// Returns `pointer` when it is set; otherwise stops the process through fatalInvariant. Works on raw
/// pointers, shared_ptr and optional. A temporary comes back by value.
template <class Pointer>
Pointer& required(Pointer& pointer, std::string_view invariant, const char* function = __builtin_FUNCTION(),
                  const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (!pointer) fatalInvariant(invariant, function, file, line);
  return pointer;
}
template <class Pointer>
requires(!std::is_lvalue_reference_v<Pointer>) Pointer
    required(Pointer&& pointer, std::string_view invariant, const char* function = __builtin_FUNCTION(),
             const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (!pointer) fatalInvariant(invariant, function, file, line);
  return std::forward<Pointer>(pointer);
}
