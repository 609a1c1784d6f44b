#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// Unicode operations on UTF-8, independent of the locale. Any thread. Bytes that are not valid UTF-8 are
/// kept, because file names on disk can hold them.

/// The key under which the service compares names and paths: composed (Normalization Form C), then each code
/// point on its own mapped to lower case (the simple mapping of Unicode's character database), so that a
/// final sigma becomes σ and İ becomes i. For comparison and lookup, not for display.
std::string caselessKey(std::string_view text);
/// Normalization Form D (Unicode Standard Annex 15).
std::string canonicallyDecomposed(std::string_view text);
/// Normalization Form C, the form in which the service keeps names.
std::string canonicallyComposed(std::string_view text);
/// Compares by canonical equivalence (composed equals decomposed), then by UTF-16 code units of the canonical
/// forms; returns less than, equal to or greater than 0. 0 only for equivalent texts, even if they are not
/// UTF-8.
int canonicalCompare(std::string_view left, std::string_view right);
bool isValidUtf8(std::string_view text) noexcept;
/// As isValidUtf8, but accepts a lone surrogate in its three-byte form, as NSString stores it. A surrogate
/// pair of two such forms is refused: its only valid form has four bytes.
bool isGeneralizedUtf8(std::string_view text) noexcept;

/// Appends one code point; a lone surrogate in its three-byte form.
void appendCodePoint(std::string& text, char32_t codePoint);
/// Replaces each surrogate pair written as two three-byte forms by its four-byte form.
void joinSurrogateHalves(std::string& text);

/// The code point at `at`, which then moves past it; nothing for bytes that are not UTF-8. REQUIRES at <
/// text.size().
std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& at) noexcept;
/// The UTF-16 form; bytes that are not UTF-8 become U+FFFD.
std::u16string utf16(std::string_view text);
/// The longest prefix of at most `sizeBytes` bytes that does not end within a character.
std::string_view utf8Prefix(std::string_view text, std::size_t sizeBytes) noexcept;
/// `text` without its last character; empty for an empty text.
std::string_view withoutLastCharacter(std::string_view text) noexcept;
