#pragma once
#include <mutex>
#include <utility>

/// A value shared between threads, read and written as a whole under its own lock. Any thread.
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
    std::swap(value_, value);  // the old value is destroyed with the argument, after the lock
  }
  /// Changes the value in place; `change` runs under the lock and must not use this object.
  template <class Change>
  decltype(auto) update(Change&& change) {
    const std::lock_guard lock(mutex_);
    return std::forward<Change>(change)(value_);
  }

 private:
  mutable std::mutex mutex_;
  Value value_{};
};
