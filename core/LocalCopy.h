#pragma once
#include <functional>
#include <optional>
#include <string>

#include "foundation/LocalAccess.h"
#include "foundation/NSDate.h"
#include "foundation/NSError.h"

/// Attributes of a created file.
struct LocalCopyOptions {
  std::optional<NSDate::Time> modified{};  // absent: now
  LocalAccess access = LocalAccess::byUmask;
  bool isDurable = false;  // synced to the disk, with its name, before the call returns
};

/// Copies a regular file on the local disk: into a hidden file beside `to`, which is then renamed atomically,
/// so that the target is never incomplete and an existing file stays until then. Shares blocks (reflink) if
/// the file system can. Keeps the permissions of a replaced file, unless `access` is ownerOnly. False with an
/// NSPOSIXErrorDomain error, or with CanceledByUserErrorDomain, -1 when `shouldContinue` (called every few
/// MiB) returns false; no partial file is left. Any thread; blocks.
bool copyLocalFile(const std::string& from, const std::string& to, const LocalCopyOptions& options,
                   const std::function<bool()>& shouldContinue, NSErrorRef* error);
/// Creates an empty file at `to` in the same way.
bool makeEmptyFile(const std::string& to, const LocalCopyOptions& options, NSErrorRef* error);
