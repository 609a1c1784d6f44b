#include "json/JsonText.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <fmt/format.h>

namespace {

constexpr auto mustBeEscaped = [] {
  std::array<bool, 256> table{};
  for (std::size_t byte = 0; byte < 0x20; ++byte) table[byte] = true;
  table['"'] = table['\\'] = true;
  return table;
}();

void appendEscaped(char byte, std::string& into) {
  constexpr std::string_view values = "\"\\\b\t\n\f\r";
  constexpr std::string_view names = "\"\\btnfr";
  const auto found = std::find(values.begin(), values.end(), byte);
  if (found == values.end()) {
    fmt::format_to(std::back_inserter(into), "\\u{:04x}", static_cast<unsigned char>(byte));
    return;
  }
  into += '\\';
  into += names[static_cast<std::size_t>(found - values.begin())];
}

}  // namespace

PlainText plainPrefix(std::string_view text) noexcept {
  std::size_t size = 0;
  unsigned char bits = 0;
  for (; size < text.size(); ++size) {
    const auto byte = static_cast<unsigned char>(text[size]);
    if (mustBeEscaped[byte]) break;
    bits |= byte;
  }
  return {text.substr(0, size), bits < 0x80};
}

void appendQuoted(std::string_view text, std::string& into) {
  into += '"';
  for (;;) {
    const std::string_view plain = plainPrefix(text).bytes;
    into += plain;
    if (plain.size() == text.size()) break;
    appendEscaped(text[plain.size()], into);
    text.remove_prefix(plain.size() + 1);
  }
  into += '"';
}
