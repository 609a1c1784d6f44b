#include "foundation/Unicode.h"

#include <algorithm>
#include <array>
#include <limits>

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include "foundation/Fatal.h"

namespace {

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

std::string asciiLowercased(std::string_view text) {
  std::string lower(text);
  for (char& byte : lower) {
    if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte + ('a' - 'A'));
  }
  return lower;
}

icu::StringPiece piece(std::string_view text) {
  return {text.data(), static_cast<std::int32_t>(text.size())};
}

const icu::Normalizer2& decomposition() {
  UErrorCode status = U_ZERO_ERROR;
  static const icu::Normalizer2* const form = icu::Normalizer2::getNFDInstance(status);
  return *required(form, "ICU must have its normalization data");
}

const icu::Normalizer2& composition() {
  UErrorCode status = U_ZERO_ERROR;
  static const icu::Normalizer2* const form = icu::Normalizer2::getNFCInstance(status);
  return *form;
}

std::string normalized(const icu::Normalizer2& form, std::string_view text) {
  if (isAscii(text) || !isValidUtf8(text)) return std::string(text);
  std::string result;
  icu::StringByteSink<std::string> sink(&result);
  UErrorCode status = U_ZERO_ERROR;
  form.normalizeUTF8(0, piece(text), sink, nullptr, status);
  return U_SUCCESS(status) ? result : std::string(text);
}

/// The half of a surrogate pair (D800 to DFFF) whose three-byte form begins at `at`, or 0.
char32_t surrogateHalfAt(std::string_view text, std::size_t at) noexcept {
  const auto byte = [&](std::size_t offset) { return static_cast<unsigned char>(text[at + offset]); };
  if (at + 2 >= text.size() || byte(0) != 0xED || byte(1) < 0xA0 || !U8_IS_TRAIL(text[at + 1]) ||
      !U8_IS_TRAIL(text[at + 2])) {
    return 0;
  }
  return 0xD000U | (byte(1) & 0x3FU) << 6U | (byte(2) & 0x3FU);
}

/// Whether the two halves of one surrogate pair begin at `at`.
bool isSplitPairAt(std::string_view text, std::size_t at) noexcept {
  return U16_IS_LEAD(surrogateHalfAt(text, at)) && U16_IS_TRAIL(surrogateHalfAt(text, at + 3));
}

}  // namespace

std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& at) noexcept {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  UChar32 codePoint = 0;
  U8_NEXT(bytes, at, text.size(), codePoint);
  return codePoint < 0 ? std::nullopt : std::optional(static_cast<char32_t>(codePoint));
}

bool isValidUtf8(std::string_view text) noexcept {
  if (text.size() > std::numeric_limits<std::int32_t>::max()) return false;  // ICU's functions cannot take it
  for (std::size_t at = 0; at < text.size();) {
    if (!nextCodePoint(text, at)) return false;
  }
  return true;
}

bool isGeneralizedUtf8(std::string_view text) noexcept {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t first = at;
    if (nextCodePoint(text, at)) continue;
    if (surrogateHalfAt(text, first) == 0 || isSplitPairAt(text, first)) return false;
    at = first + 3;
  }
  return true;
}

void appendCodePoint(std::string& text, char32_t codePoint) {
  std::array<char, U8_MAX_LENGTH> bytes{};
  std::size_t size = 0;
  U8_APPEND_UNSAFE(bytes.data(), size, codePoint);
  text.append(bytes.data(), size);
}

void joinSurrogateHalves(std::string& text) {
  std::string joined;
  joined.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    if (isSplitPairAt(text, at)) {
      appendCodePoint(joined,
                      U16_GET_SUPPLEMENTARY(surrogateHalfAt(text, at), surrogateHalfAt(text, at + 3)));
      at += 6;
    } else {
      joined += text[at++];
    }
  }
  text = std::move(joined);
}

std::u16string utf16(std::string_view text) {
  const icu::UnicodeString units = icu::UnicodeString::fromUTF8(piece(text));
  return {units.getBuffer(), static_cast<std::size_t>(units.length())};
}

std::string_view utf8Prefix(std::string_view text, std::size_t sizeBytes) noexcept {
  if (sizeBytes >= text.size()) return text;
  while (sizeBytes > 0 && U8_IS_TRAIL(text[sizeBytes])) --sizeBytes;
  return text.substr(0, sizeBytes);
}

std::string_view withoutLastCharacter(std::string_view text) noexcept {
  return text.empty() ? text : utf8Prefix(text, text.size() - 1);
}

std::string caselessKey(std::string_view text) {
  if (isAscii(text) || !isValidUtf8(text)) return asciiLowercased(text);
  const std::string composed = canonicallyComposed(text);
  std::string key;
  key.reserve(composed.size());
  for (std::size_t at = 0; at < composed.size();) {
    const auto codePoint = static_cast<UChar32>(*nextCodePoint(composed, at));
    appendCodePoint(key, static_cast<char32_t>(u_tolower(codePoint)));
  }
  return key;
}

std::string canonicallyDecomposed(std::string_view text) { return normalized(decomposition(), text); }

std::string canonicallyComposed(std::string_view text) { return normalized(composition(), text); }

int canonicalCompare(std::string_view left, std::string_view right) {
  if (left == right) return 0;
  if (isAscii(left) && isAscii(right)) return left < right ? -1 : 1;
  const std::string first = canonicallyDecomposed(left);
  const std::string second = canonicallyDecomposed(right);
  const int order = utf16(first).compare(utf16(second));
  // Invalid bytes all became the replacement character, which must not make different names equal.
  return order != 0 ? order : first.compare(second);
}
