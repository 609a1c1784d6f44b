#include "foundation/Unicode.h"

#include <algorithm>
#include <array>
#include <limits>

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
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
  return *required(form, "ICU has its normalization data");
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

}  // namespace

bool isValidUtf8(std::string_view text) noexcept {
  if (text.size() > std::numeric_limits<std::int32_t>::max()) return false;  // more than ICU can count
  const auto length = static_cast<std::int32_t>(text.size());
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  for (std::int32_t at = 0; at < length;) {
    UChar32 character = 0;
    U8_NEXT(bytes, at, length, character);
    if (character < 0) return false;
  }
  return true;
}

std::string lowercased(std::string_view text) {
  if (isAscii(text)) return asciiLowercased(text);
  if (!isValidUtf8(text)) return asciiLowercased(text);
  std::string lower;
  icu::StringByteSink<std::string> sink(&lower);
  UErrorCode status = U_ZERO_ERROR;
  icu::CaseMap::utf8ToLower("", 0, piece(text), sink, nullptr, status);
  return U_SUCCESS(status) ? lower : asciiLowercased(text);
}

std::string caselessKey(std::string_view text) {
  if (isAscii(text) || !isValidUtf8(text)) return asciiLowercased(text);
  const std::string composed = canonicallyComposed(text);
  std::string key;
  key.reserve(composed.size());
  const auto length = static_cast<std::int32_t>(composed.size());
  for (std::int32_t at = 0; at < length;) {
    UChar32 character = 0;
    U8_NEXT(composed.data(), at, length, character);
    std::array<char, U8_MAX_LENGTH> bytes{};
    std::int32_t size = 0;
    U8_APPEND_UNSAFE(bytes.data(), size, u_tolower(character));
    key.append(bytes.data(), static_cast<std::size_t>(size));
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
  const auto order =
      icu::UnicodeString::fromUTF8(piece(first)).compare(icu::UnicodeString::fromUTF8(piece(second)));
  // Bytes that are no UTF-8 all became the replacement character: they must not make different names equal.
  return order != 0 ? order : first.compare(second);
}
