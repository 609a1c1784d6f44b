#pragma once
#include <optional>
#include <string>
#include <string_view>

/// The local folder of the service's desktop client, as the client itself records it in the user's home.
/// Nothing, and no message, when there is no such record or it cannot be used: a machine without the client
/// is the usual case. Reads one small file; never hangs. Any thread.
std::optional<std::string> desktopClientFolder();
/// The same, of the record's text.
std::optional<std::string> desktopClientFolderFrom(std::string_view text);
