#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "foundation/NSError.h"

/// The program's own files, which no other user may read or replace. Errors are in NSPOSIXErrorDomain. Any
/// thread; calls block for the disk.

/// Creates the folder `path` (absolute) and missing parents, with mode 0700 whatever the umask. Existing
/// folders stay as they are, except for the program's own (those of StandardFolders.h and below): one that
/// others can access is restricted to 0700, with a warning in the log, and one that belongs to another user
/// is an error (EPERM).
bool makePrivateFolder(const std::string& path, NSErrorRef* error = nullptr);

/// The bytes of a private file of at most `limitBytes` (EFBIG). One that others can read or write is
/// restricted to mode 0600, with a warning in the log. A symbolic link (ELOOP), another user's file (EPERM)
/// and anything but a regular file (EISDIR, EINVAL) are refused. Never blocks on a pipe or device.
std::optional<std::string> readPrivateFile(const std::string& path, std::uint64_t limitBytes,
                                           NSErrorRef* error = nullptr);
