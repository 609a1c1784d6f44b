#pragma once
#include <string>
#include <string_view>

/// `message` with "***" in place of secrets: the text after a secret's name ("access_token=", "Bearer ", ...)
/// and anything that looks like one of the service's tokens. The last line of defence for texts that may
/// quote a request, in the log or from the service. Any thread.
std::string withoutSecrets(std::string_view message);
