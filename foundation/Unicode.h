#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// Unicode operations on UTF-8, independent of the locale. Any thread. Bytes that are not valid UTF-8 are
/// kept, because file names on disk can hold them.

/// The key under which the service compares names and paths: composed (Normalization Form C), then each code
/// point on its own mapped to lower case (the simple mapping of Unicode's character database), so that a
/// final sigma becomes σ and İ becomes i. For comparing and looking up, not for showing.
std::string caselessKey(std::string_view text);
/// Normalization Form D (Unicode Standard Annex 15).
std::string canonicallyDecomposed(std::string_view text);
/// Normalization Form C, the form in which the service keeps names.
std::string canonicallyComposed(std::string_view text);
/// Less than, equal to or greater than 0: canonical equivalence first (composed equals decomposed), then the
/// order of the canonical forms by UTF-16 code unit. 0 only for equivalent texts, also if they are not UTF-8.
int canonicalCompare(std::string_view left, std::string_view right);
bool isValidUtf8(std::string_view text) noexcept;
/// As isValidUtf8, but half of a surrogate pair may stand alone in its three-byte form, as NSString keeps it.
/// Both halves in a row are refused: such a character has one form, of four bytes.
bool isGeneralizedUtf8(std::string_view text) noexcept;

/// Appends one code point; half of a surrogate pair gets its three-byte form.
void appendCodePoint(std::string& text, char32_t codePoint);
/// Replaces each surrogate pair that is written as two three-byte halves by its four-byte form.
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
