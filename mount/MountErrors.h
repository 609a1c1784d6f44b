#pragma once
#include "foundation/NSError.h"

namespace kzv::mount {

/// The errno value for a failure of the volume: POSIX errors as they are, others by their FSErrorCode. Null
/// is ENOENT: an operation that fails without an error has found no item.
int errnoOf(const NSErrorRef& error);

/// Whether the same call may succeed a moment later: the connection failed, or the service was busy or
/// failed.
bool isTransient(const NSErrorRef& error);

}  // namespace kzv::mount
