#pragma once
#include <optional>
#include <string>
#include <string_view>

/// The local folder of the service's desktop client, from the file that the client writes in the user's home.
/// Nothing, without a message, when there is no usable file: most machines have no client. Reads one small
/// file; never hangs. Any thread.
std::optional<std::string> desktopClientFolder();
/// The same from the file's text.
std::optional<std::string> desktopClientFolderFrom(std::string_view text);
