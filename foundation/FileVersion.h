#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

/// An opaque version of a file, which changes when the file is written, replaced or changed in its attributes
/// (device, inode, size, mtime and ctime in nanoseconds). Follows links. Two writes within one tick of the
/// system clock (a few milliseconds) may give the same version. Nothing, with an error in NSPOSIXErrorDomain,
/// when there is no such file. Any thread; blocks for the disk.
std::optional<std::string> fileVersion(const std::string& path, NSErrorRef* error = nullptr);
/// The same for an open file; `path` is only used in the error text.
std::optional<std::string> fileVersion(int descriptor, const std::string& path, NSErrorRef* error = nullptr);
