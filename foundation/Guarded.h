#pragma once
#include <mutex>
#include <utility>

/// A value that threads share: read and written whole, each time under a lock of its own that is held for the
/// copy only. Any thread.
template <class Value>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(Value value) : value_(std::move(value)) {}

  Value get() const {
    const std::lock_guard lock(mutex_);
    return value_;
  }
  void set(Value value) {
    const std::lock_guard lock(mutex_);
    std::swap(value_, value);  // the old one goes when the argument does: after the lock
  }
  /// Changes the value in place; `change` must not come back here.
  template <class Change>
  decltype(auto) update(Change&& change) {
    const std::lock_guard lock(mutex_);
    return std::forward<Change>(change)(value_);
  }

 private:
  mutable std::mutex mutex_;
  Value value_{};
};
