#pragma once
#include <chrono>
#include <string>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// An advisory lock between processes (flock) on a lock file, held until the object is destroyed or the
/// process ends in any way. Two objects in one process also exclude each other. Used by one thread.
class FileLock {
 public:
  enum class LockFile { create, createNew, existing };

  /// Waits at most ` timeout` for the current holder. A missing lock file is created (mode 0600); a symbolic
  /// link is refused.
  FileLock(const std::string& path, std::chrono::milliseconds timeout);
  /// The same for the file `name` in an open folder. With `createNew` an existing file is an error (EEXIST),
  /// with `existing` a missing one (ENOENT). A file that was removed before it could be locked is ENOENT too:
  /// its lock would protect nothing.
  FileLock(const Descriptor& folder, const std::string& name, LockFile lockFile,
           std::chrono::milliseconds timeout);

  bool isHeld() const noexcept { return !error_; }
  /// Why it is not held: a disk error, or EWOULDBLOCK with a text naming the process that holds it, if known
  /// (NSPOSIXErrorDomain). Empty when it is held.
  const NSErrorRef& error() const noexcept { return error_; }

 private:
  FileLock(int folder, const std::string& name, int flags, std::chrono::milliseconds timeout);

  Descriptor file_;
  NSErrorRef error_;
};
