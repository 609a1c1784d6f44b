#pragma once
#include <source_location>
#include <string_view>
#include <type_traits>
#include <utility>

/// Stops the process because an invariant of the program is broken: writes one line naming the invariant and
/// where it was tested to stderr, then aborts. For programming errors only; a failure of the outside world is
/// an NSError. Callable from any thread.
[[noreturn]] void fatalInvariant(std::string_view invariant,
                                 std::source_location where = std::source_location::current());

/// Returns `pointer` when it is set; otherwise stops the process through fatalInvariant. Works on raw
/// pointers, shared_ptr and optional.
template <class Pointer>
Pointer& required(Pointer& pointer, std::string_view invariant,
                  std::source_location where = std::source_location::current()) {
  if (!pointer) fatalInvariant(invariant, where);
  return pointer;
}
template <class Pointer>
Pointer required(Pointer&& pointer, std::string_view invariant,
                 std::source_location where =
                     std::source_location::current()) requires(!std::is_lvalue_reference_v<Pointer>) {
  if (!pointer) fatalInvariant(invariant, where);
  return std::move(pointer);
}
