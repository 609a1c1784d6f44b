#pragma once
#include <cerrno>
#include <utility>

#include <unistd.h>

/// A file descriptor that closes itself. Negative: none; `errno` then has the reason if it was constructed
/// from a failed call.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }

  bool isOpen() const noexcept { return number_ >= 0; }
  int number() const noexcept { return number_; }
  /// Releases ownership without closing.
  int release() noexcept { return std::exchange(number_, -1); }
  /// Closes now. 0, or an errno value: the system may report a failed write only here.
  int close() { return ::close(std::exchange(number_, -1)) == 0 ? 0 : errno; }

 private:
  int number_ = -1;
};
