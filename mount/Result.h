#pragma once
#include <functional>

namespace kzv::mount {

/// What an operation of a file system gives: a value, or an errno value.
template <class Value>
struct Result {
  Value value{};
  int error = 0;
};

/// Whether the program that made a request has been told to stop. Asked now and then while an operation
/// runs; must not block.
using IsInterrupted = std::function<bool()>;

}  // namespace kzv::mount
