#include "kzv/Formatting.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "foundation/NSByteCountFormatter.h"
#include "foundation/Unicode.h"

namespace kzv::cli {

namespace {

/// The length in bytes of the UTF-8 character at the beginning of `text`; 0 when it is invalid.
std::size_t characterLength(std::string_view text) {
  constexpr std::size_t longest = 4;
  for (std::size_t length = 1; length <= std::min(longest, text.size()); ++length)
    if (isValidUtf8(text.substr(0, length))) return length;
  return 0;
}

bool isControlCharacter(std::string_view character) {
  const auto lead = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return lead < 0x20 || lead == 0x7F;
  if (character.size() == 2) return lead == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
  if (character.size() != 3) return false;
  // U+2028 to U+202E and U+2066 to U+2069: line separators, embeddings, overrides, isolates. U+061C, two
  // bytes long, is only a hint.
  const bool isSeparatorOrOverride = character >= "\xE2\x80\xA8" && character <= "\xE2\x80\xAE";
  const bool isIsolate = character >= "\xE2\x81\xA6" && character <= "\xE2\x81\xA9";
  return isSeparatorOrOverride || isIsolate;
}

void appendEscaped(std::string& out, std::string_view bytes) {
  for (const char byte : bytes) {
    if (byte == '\n') {
      out += "\\n";
    } else if (byte == '\t') {
      out += "\\t";
    } else if (byte == '\r') {
      out += "\\r";
    } else {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
  }
}

bool isPlainAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

}  // namespace

std::string byteCount(std::uint64_t bytes) {
  return stringFromByteCount(std::in_range<std::int64_t>(bytes) ? static_cast<std::int64_t>(bytes)
                                                                : std::numeric_limits<std::int64_t>::max());
}

std::string localTime(std::chrono::system_clock::time_point time) {
  const std::time_t seconds =
      std::chrono::floor<std::chrono::seconds>(time).time_since_epoch() / std::chrono::seconds(1);
  std::tm parts{};
  if (!::localtime_r(&seconds, &parts)) return "?";
  std::array<char, 64> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts)};
}

std::string duration(std::chrono::seconds time) {
  const auto all = time.count();
  if (all < 3600) return fmt::format("{}:{:02}", all / 60, all % 60);
  return fmt::format("{}:{:02}:{:02}", all / 3600, all / 60 % 60, all % 60);
}

std::string harmless(std::string_view text) {
  if (isPlainAscii(text)) return std::string(text);
  std::string out;
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
    if (length == 0 || isControlCharacter(character)) {
      appendEscaped(out, character);
    } else {
      out += character;
    }
    text.remove_prefix(character.size());
  }
  return out;
}

std::string validUtf8(std::string_view text) {
  if (isValidUtf8(text)) return std::string(text);
  std::string out;
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    out += length ? text.substr(0, length) : std::string_view("\xEF\xBF\xBD");
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return out;
}

std::optional<std::string> remotePath(std::string_view typed, std::string_view folder) {
  if (!isValidUtf8(typed)) return std::nullopt;
  std::string whole;
  if (!typed.starts_with('/')) {
    ((whole += folder) += '/') += typed;
    typed = whole;
  }
  std::vector<std::string_view> components;
  while (!typed.empty()) {
    const std::string_view component = typed.substr(0, typed.find('/'));
    typed.remove_prefix(std::min(component.size() + 1, typed.size()));
    if (component == "..") {
      if (components.empty()) return std::nullopt;
      components.pop_back();
    } else if (!component.empty() && component != ".") {
      components.push_back(component);
    }
  }
  std::string path;
  for (const std::string_view component : components) (path += '/') += component;
  return path.empty() ? "/" : path;
}

}  // namespace kzv::cli
