#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

/// Which version of a file is there: an opaque text, another one after the file was written, replaced by
/// another file or changed in its attributes (device, inode, size, and both times to the nanosecond). Follows
/// links. Two writes within one tick of the system's clock (some milliseconds) may give the same text.
/// Nothing, with an error in NSPOSIXErrorDomain, when there is no such file. Any thread; blocks for the disk.
std::optional<std::string> fileVersion(const std::string& path, NSErrorRef* error = nullptr);
/// The same for an open file; `path` is for the error's text.
std::optional<std::string> fileVersion(int descriptor, const std::string& path, NSErrorRef* error = nullptr);
