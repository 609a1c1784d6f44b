#pragma once
#include <string>
#include <string_view>

/// The text for `key` in the user's language (LC_ALL, LC_MESSAGES, LANG), looked for in the loaded bundles'
/// strings, then in English, else the key itself. Any thread.
std::string L(std::string_view key);
