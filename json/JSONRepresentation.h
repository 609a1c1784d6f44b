#pragma once
#include <optional>
#include <string>

#include "foundation/NSObject.h"

/// `object` as compact JSON, or nothing; then the errors are in the log. See QJJsonWriter for what can be
/// written. Any thread.
std::optional<std::string> JSONRepresentation(const id& object);
