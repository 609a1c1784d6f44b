#pragma once
#include <functional>
#include <optional>
#include <string>

#include "foundation/NSDate.h"
#include "foundation/NSError.h"

/// Copies a regular file on the local disk: into a hidden file beside `to`, which then takes the name in one
/// step, so that nobody ever finds half a file there and a file that was there before stays whole until then.
/// Shares blocks where the disk can. Sets `modified`, if given. False with an NSPOSIXErrorDomain error, or
/// with CanceledByUserErrorDomain, -1 once `goesOn` (asked every few MiB) says no; then nothing is left. Any
/// thread, blocks.
bool copyLocalFile(const std::string& from, const std::string& to, std::optional<NSDate::Time> modified,
                   const std::function<bool()>& goesOn, NSErrorRef* error);
