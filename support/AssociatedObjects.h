#pragma once
#include "foundation/NSObject.h"

/// Values associated with an object under a key object, by the key's identity, not its text. Any thread. A
/// request's bookkeeping is attached to its client this way: stored on one thread, read on another.

/// Stores `value` without keeping it alive: the caller must, for as long as it is associated.
void assignObj(const NSObject& object, const id& value, const NSObject& key);
/// Stores `value` and keeps it alive; an empty value removes what is there.
void setObj(const NSObject& object, id value, const NSObject& key);
/// What is stored, or nothing. A retained value stays alive for as long as the caller holds it.
id objForKey(const NSObject& object, const NSObject& key);
