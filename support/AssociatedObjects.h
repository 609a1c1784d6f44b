#pragma once
#include "foundation/NSObject.h"

/// Values hung on any object under a key object, whose identity (not its text) is the key. Any thread. A
/// request's bookkeeping travels this way on the client that carries it: stored on one thread, read on
/// another.

/// Stores `value` without keeping it alive: the caller must, for as long as it is associated.
void assignObj(const NSObject& object, const id& value, const NSObject& key);
/// Stores `value` and keeps it alive; an empty value removes what is there.
void setObj(const NSObject& object, id value, const NSObject& key);
/// What is stored, or nothing. A retained value stays alive for as long as the reader holds it.
id objForKey(const NSObject& object, const NSObject& key);
