#pragma once
#include <vector>

#include "foundation/NSObject.h"

/// Releases the members of a container that is being destroyed without recursing into containers inside it:
/// data read from outside may be nested deeper than the stack.
void releaseInTurn(std::vector<id>&& members) noexcept;
