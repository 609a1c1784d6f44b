#include "sdk/ServiceText.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <optional>

#include "foundation/SecretText.h"
#include "sdk/ServiceLimits.h"

namespace {

struct Character {
  std::string_view bytes;
  char32_t codePoint = 0;
};

/// The first character of `text`; nothing when it is not valid UTF-8 (RFC 3629).
std::optional<Character> firstCharacter(std::string_view text) {
  const auto byteAt = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char lead = byteAt(0);
  if (lead < 0x80) return Character{text.substr(0, 1), lead};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return std::nullopt;
  char32_t codePoint = lead & (0xFFU >> (length + 1));
  for (std::size_t at = 1; at < length; ++at) {
    if ((byteAt(at) & 0xC0U) != 0x80) return std::nullopt;
    codePoint = codePoint << 6U | (byteAt(at) & 0x3FU);
  }
  constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < smallest[length] || codePoint > 0x10FFFF || isSurrogate) return std::nullopt;
  return Character{text.substr(0, length), codePoint};
}

/// Control characters, and those that are not seen and change how others are: line and paragraph separators,
/// marks, embeddings, overrides and isolates of the writing direction, the byte order mark.
bool isControl(char32_t codePoint) {
  struct Range {
    char32_t first, last;
  };
  constexpr Range ranges[] = {{0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C},  {0x200E, 0x200F},
                              {0x2028, 0x202E}, {0x2066, 0x2069}, {0xFEFF, 0xFEFF}};
  return std::any_of(std::begin(ranges), std::end(ranges),
                     [&](Range range) { return codePoint >= range.first && codePoint <= range.last; });
}

std::string withoutControls(std::string_view text, std::size_t characters) {
  std::string clean;
  for (std::size_t count = 0; !text.empty(); ++count) {
    if (count == characters) return clean + "\u2026";
    const auto character = firstCharacter(text);
    if (!character || isControl(character->codePoint)) {
      clean += ' ';
    } else {
      clean += character->bytes;
    }
    text.remove_prefix(character ? character->bytes.size() : 1);
  }
  return clean;
}

/// Long words of letters and digits mixed: tokens that neither a name before them nor their start gives away.
std::string withoutLongCodes(std::string_view text) {
  constexpr std::size_t shortestCode = 24;
  const auto isPart = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
  };
  std::string clean;
  while (!text.empty()) {
    const auto end = std::find_if_not(text.begin(), text.end(), isPart);
    const auto word = text.substr(0, static_cast<std::size_t>(end - text.begin()));
    const auto count = [&](auto is) {
      return std::any_of(word.begin(), word.end(),
                         [&](char c) { return is(static_cast<unsigned char>(c)) != 0; });
    };
    const bool isCode = word.size() >= shortestCode && count(::isdigit) && count(::isalpha);
    clean += isCode ? std::string_view("***") : word;
    text.remove_prefix(word.size());
    if (text.empty()) break;
    clean += text.front();
    text.remove_prefix(1);
  }
  return clean;
}

}  // namespace

std::string serviceText(std::string_view text) {
  // Cut first, generously, so that a text of megabytes costs nothing; and again, since stars are longer than
  // some of what they replace.
  const std::string readable = withoutControls(text, 4 * servicelimits::textCharacters);
  return withoutControls(withoutLongCodes(withoutSecrets(readable)), servicelimits::textCharacters);
}
