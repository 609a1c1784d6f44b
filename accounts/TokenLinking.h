#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

/// Links the account of `token` (an access token, or the service's token response as JSON) with the shared
/// session, for machines without a browser. Returns the account id, or nothing with an error. Blocks until
/// the service has answered; not on the service thread.
std::optional<std::string> linkWithToken(const std::string& token, NSErrorRef* error);
