#pragma once
#include "foundation/NSError.h"

/// What a program that uses the mount is told.

/// The errno value for a failure of the volume: its own for the disk's errors, else by its FSErrorCode. An
/// empty `error` is ENOENT: what an operation without a reason means.
int errnoOf(const NSErrorRef& error);

/// Whether the same may work a moment later: the connection failed, or the service was busy or failed.
bool isTransient(const NSErrorRef& error);
