#pragma once
#include <string>
#include <string_view>

/// `message` with what follows the name of a secret ("access_token=", "Bearer ", ...) and what looks like one
/// of the service's tokens replaced by "***". The last line of defence for texts that may quote a request:
/// the log's, the service's. Any thread.
std::string withoutSecrets(std::string_view message);
