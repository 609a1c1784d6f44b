#pragma once
#include <string>
#include <string_view>

/// Bytes that a JSON string holds without escapes: no quote, no backslash, no byte below 32.
struct PlainText {
  std::string_view bytes;
  bool isAscii;
};

/// The longest prefix of `text` that needs no escapes.
PlainText plainPrefix(std::string_view text) noexcept;

/// Appends `text` as a JSON string, with quotes. Bytes above 127 and slashes are not escaped.
void appendQuoted(std::string_view text, std::string& into);
