#pragma once
#include <optional>
#include <string>

/// The local folder of the service's desktop client, as the client itself records it in the user's home.
/// Nothing, and no message, when there is no such record or it cannot be used: a machine without the client
/// is the usual case. Reads one small file; never hangs. Any thread.
std::optional<std::string> desktopClientFolder();
