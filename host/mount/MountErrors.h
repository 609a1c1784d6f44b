#pragma once
#include "foundation/NSError.h"

/// What a program that uses the mount is told.

/// The errno value for a failure of the volume: its own for the disk's errors, else by the code, which is an
/// HTTP status where the service answered. An empty `error` is ENOENT: what an operation without a reason
/// means.
int errnoOf(const NSErrorRef& error);

/// Whether the same may work a moment later: the line was cut, or the service was busy or stumbled.
bool isTransient(const NSErrorRef& error);
