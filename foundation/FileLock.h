#pragma once
#include <chrono>
#include <string>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// An advisory lock between processes (flock) on a file made for it, held for as long as the object lives. It
/// goes with the process, however that ends. Two objects exclude each other in one process, too. One thread.
class FileLock {
 public:
  /// Waits at most `patience` for whoever holds it. The file is made when it is missing (mode 0600); a link
  /// in its place is refused.
  FileLock(const std::string& path, std::chrono::milliseconds patience);

  bool isHeld() const noexcept { return !error_; }
  /// Why it is not held: an error of the disk, or EWOULDBLOCK with a text that names the process which holds
  /// it, as far as the system tells (NSPOSIXErrorDomain). Empty when it is held.
  const NSErrorRef& error() const noexcept { return error_; }

 private:
  const Descriptor file_;
  NSErrorRef error_;
};
