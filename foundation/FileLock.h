#pragma once
#include <chrono>
#include <string>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// An advisory lock between processes (flock) on a lock file, held until the object is destroyed or the
/// process ends, however it ends. Two objects exclude each other in one process, too. One thread.
class FileLock {
 public:
  enum class LockFile { create, createNew, existing };

  /// Waits at most `patience` for the current holder. A missing lock file is created (mode 0600); a link in
  /// its place is refused.
  FileLock(const std::string& path, std::chrono::milliseconds patience);
  /// The same for the file `name` in an open folder. With `createNew` an existing file is an error (EEXIST),
  /// with `existing` a missing one (ENOENT), as is one that was removed before it could be locked: its lock
  /// would protect nothing.
  FileLock(const Descriptor& folder, const std::string& name, LockFile lockFile,
           std::chrono::milliseconds patience);

  bool isHeld() const noexcept { return !error_; }
  /// Why it is not held: an error of the disk, or EWOULDBLOCK with a text that names the process that holds
  /// it, as far as the system tells (NSPOSIXErrorDomain). Empty when it is held.
  const NSErrorRef& error() const noexcept { return error_; }

 private:
  FileLock(int folder, const std::string& name, int flags, std::chrono::milliseconds patience);

  Descriptor file_;
  NSErrorRef error_;
};
