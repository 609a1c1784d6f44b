#pragma once
#include <functional>

namespace kzv::mount {

/// The result of a file system operation: a value, or an errno value (0: none).
template <class Value>
struct Result {
  Value value{};
  int error = 0;
};

/// Whether the program that made the request was interrupted by a signal. Called repeatedly during an
/// operation; must not block.
using IsInterrupted = std::function<bool()>;

}  // namespace kzv::mount
