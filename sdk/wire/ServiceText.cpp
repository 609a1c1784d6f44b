#include "sdk/wire/ServiceText.h"

#include <algorithm>
#include <cctype>

#include "foundation/SecretText.h"
#include "foundation/Unicode.h"
#include "sdk/wire/ServiceLimits.h"

namespace kzv::sdk {

namespace {

/// Control characters, and invisible characters that change how others are shown: line and paragraph
/// separators, marks, embeddings, overrides and isolates of the writing direction, the byte order mark.
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
  std::size_t at = 0;
  for (std::size_t count = 0; at < text.size(); ++count) {
    if (count == characters) return clean + "\u2026";
    const std::size_t first = at;
    const auto codePoint = nextCodePoint(text, at);
    clean += !codePoint || isControl(*codePoint) ? " " : text.substr(first, at - first);
  }
  return clean;
}

/// Replaces long words that mix letters and digits: tokens that withoutSecrets cannot recognise.
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
  // Truncated roughly first, so that megabytes cost little, and again at the end, because "***" may be longer
  // than the replaced text.
  const std::string readable = withoutControls(text, 4 * servicelimits::textCharacters);
  return withoutControls(withoutLongCodes(withoutSecrets(readable)), servicelimits::textCharacters);
}

}  // namespace kzv::sdk
