#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "foundation/NSError.h"

/// This program's own files, which no other user may read or replace. Errors are in NSPOSIXErrorDomain. Any
/// thread; calls block for the disk.

/// Makes the folder `path` (absolute) and what is missing above it, with mode 0700 whatever the umask. What
/// is there already stays, but of the program's own folders (those of StandardFolders.h and below) one that
/// is open to others is closed, with a warning in the log, and one that belongs to another user is an error
/// (EPERM): that user could read along.
bool makePrivateFolder(const std::string& path, NSErrorRef* error = nullptr);

/// The bytes of a private file of at most `limitBytes` (EFBIG). One that others can read or write is closed
/// (mode 0600), with a warning in the log. A symbolic link (ELOOP), another user's file (EPERM) and what is
/// no regular file (EISDIR, EINVAL) are refused. Never hangs.
std::optional<std::string> readPrivateFile(const std::string& path, std::uint64_t limitBytes,
                                           NSErrorRef* error = nullptr);
