#pragma once
#include <string_view>

#include "foundation/NSObject.h"

/// The NSDictionary or NSArray that `text` holds as JSON, or nothing; then the errors are in the log. See
/// QJJsonParser for what is accepted. Any thread.
id JSONValue(std::string_view text);
