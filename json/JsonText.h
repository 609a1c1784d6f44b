#pragma once
#include <cstddef>
#include <string>
#include <string_view>

/// A stretch of bytes that stand for themselves inside a JSON string.
struct PlainRun {
  std::size_t sizeBytes;
  bool isAscii;
};

/// The length of the run at the start of `text` that holds no quote, no backslash and no byte below 32. Reads
/// nothing outside `text`.
PlainRun plainRun(std::string_view text) noexcept;

/// Copies `text` to `to`, which has room for it. False when `text` as a whole is not such a run; what was
/// copied is then of no use.
bool copyPlain(std::string_view text, char* to) noexcept;

/// Whether `text` is UTF-8 (RFC 3629), where one half of a surrogate pair may also stand alone in its
/// three-byte form. Both halves in a row are refused: the four-byte form is the only one for such a
/// character.
bool isGeneralisedUtf8(std::string_view text) noexcept;

/// Appends the UTF-8 form of one 16-bit unit; half of a surrogate pair takes three bytes.
void appendUnit(std::string& text, unsigned unit);

/// Puts halves of surrogate pairs that have come to stand side by side into their one four-byte form, so that
/// texts of the same 16-bit units have the same bytes.
void joinSurrogateHalves(std::string& text);
