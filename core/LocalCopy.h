#pragma once
#include <functional>
#include <optional>
#include <string>

#include "foundation/LocalAccess.h"
#include "foundation/NSDate.h"
#include "foundation/NSError.h"

/// What a file that is made here is like.
struct LocalCopyOptions {
  std::optional<NSDate::Time> modified{};  // absent: now
  LocalAccess access = LocalAccess::byUmask;
  bool isDurable = false;  // on the disk, with its name, before the call returns
};

/// Copies a regular file on the local disk: into a hidden file beside `to`, which then takes the name in one
/// step, so that nobody ever finds half a file there and a file that was there before stays whole until then.
/// Shares blocks where the disk can. A file that it replaces lends it its permissions, unless `access` says
/// otherwise. False with an NSPOSIXErrorDomain error, or with
/// CanceledByUserErrorDomain, -1 once `goesOn` (asked every few MiB) says no; then nothing is left. Any
/// thread, blocks.
bool copyLocalFile(const std::string& from, const std::string& to, const LocalCopyOptions& options,
                   const std::function<bool()>& goesOn, NSErrorRef* error);
/// Makes an empty file at `to` in the same way.
bool makeEmptyFile(const std::string& to, const LocalCopyOptions& options, NSErrorRef* error);
