#pragma once
#include <string_view>
#include <type_traits>
#include <utility>

/// Aborts the process because of a programming error, after writing the broken invariant and its source
/// location to stderr. Failures of the environment are NSErrors instead. Any thread. The location parameters
/// are defaulted with compiler built-ins because clang 14, which builds the fuzz targets, has no
/// std::source_location.
[[noreturn]] void fatalInvariant(std::string_view invariant, const char* function = __builtin_FUNCTION(),
                                 const char* file = __builtin_FILE(), int line = __builtin_LINE());

/// Returns `pointer` if it is set, otherwise calls fatalInvariant. Takes raw pointers, shared_ptr and
/// optional. A temporary is returned by value.
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
