#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

/// Links the account that `token` belongs to (an access token, or the service's token answer as JSON) with
/// the shared session: for machines without a browser. Blocks for the service's answer; not on the service
/// thread. Returns the account's id, or nothing with the error.
std::optional<std::string> linkWithToken(const std::string& token, NSErrorRef* error);
