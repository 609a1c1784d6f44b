#pragma once
#include <string>
#include <string_view>

/// The text for `key` in the user's language (LANGUAGE, LC_ALL, LC_MESSAGES, LANG), else in English, else the
/// key itself. Looks in the file Texts.ini of each loaded bundle (group "Texts", GLib's key file format). Any
/// thread; reads the disk.
std::string L(std::string_view key);
