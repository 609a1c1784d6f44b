#include "core/StringsFile.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <utility>

namespace {

void appendUtf8(std::string& out, std::uint32_t codePoint) {
  const auto put = [&](std::uint32_t byte) { out.push_back(static_cast<char>(byte)); };
  const auto putTail = [&](int shift) { put(0x80U | ((codePoint >> shift) & 0x3FU)); };
  if (codePoint < 0x80) {
    put(codePoint);
  } else if (codePoint < 0x800) {
    put(0xC0U | (codePoint >> 6));
    putTail(0);
  } else if (codePoint < 0x10000) {
    put(0xE0U | (codePoint >> 12));
    putTail(6);
    putTail(0);
  } else {
    put(0xF0U | (codePoint >> 18));
    putTail(12);
    putTail(6);
    putTail(0);
  }
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {
    if (text_.starts_with("\xEF\xBB\xBF")) position_ = 3;
  }

  bool atEnd() const { return position_ >= text_.size(); }
  std::size_t line() const {
    const auto seen = text_.substr(0, std::min(position_, text_.size()));
    return 1 + static_cast<std::size_t>(std::count(seen.begin(), seen.end(), '\n'));
  }

  void skipBlanksAndComments() {
    while (!atEnd()) {
      if (const char c = text_[position_]; c == ' ' || c == '\t' || c == '\r' || c == '\n') {
        ++position_;
      } else if (rest().starts_with("//")) {
        skipPast("\n");
      } else if (rest().starts_with("/*")) {
        position_ += 2;
        skipPast("*/");
      } else {
        return;
      }
    }
  }

  bool take(char wanted) {
    skipBlanksAndComments();
    if (atEnd() || text_[position_] != wanted) return false;
    ++position_;
    return true;
  }

  std::optional<std::string> takeQuoted() {
    if (!take('"')) return std::nullopt;
    std::string value;
    bool isWellFormed = true;  // a bad escape does not end the search for the closing quote
    while (!atEnd()) {
      const char c = text_[position_++];
      if (c == '"') return isWellFormed ? std::optional(std::move(value)) : std::nullopt;
      if (c != '\\') {
        value.push_back(c);
      } else if (!takeEscape(value)) {
        isWellFormed = false;
      }
    }
    return std::nullopt;
  }

  /// Moves behind the next semicolon outside quotes, so that one bad entry costs only itself.
  void skipEntry() {
    while (!atEnd()) {
      if (text_[position_] == '"') {
        takeQuoted();
      } else if (text_[position_++] == ';') {
        return;
      }
    }
  }

 private:
  std::string_view rest() const { return text_.substr(position_); }

  void skipPast(std::string_view end) {
    const std::size_t found = text_.find(end, position_);
    position_ = found == std::string_view::npos ? text_.size() : found + end.size();
  }

  bool takeEscape(std::string& value) {
    if (atEnd()) return false;
    switch (const char c = text_[position_++]) {
      case 'n':
        value.push_back('\n');
        return true;
      case 't':
        value.push_back('\t');
        return true;
      case 'r':
        value.push_back('\r');
        return true;
      case 'U':
      case 'u':
        return takeUnicode(value);
      default:
        value.push_back(c);
        return true;
    }
  }

  bool takeUnicode(std::string& value) {
    const auto first = takeUnit();
    if (!first) return false;
    const bool isHigh = *first >= 0xD800 && *first < 0xDC00;
    if (!isHigh || !(rest().starts_with("\\U") || rest().starts_with("\\u"))) {
      appendUtf8(value, *first);
      return true;
    }
    position_ += 2;
    const auto second = takeUnit();
    if (!second || *second < 0xDC00 || *second > 0xDFFF) return false;
    appendUtf8(value, 0x10000U + ((*first - 0xD800U) << 10) + (*second - 0xDC00U));
    return true;
  }

  std::optional<std::uint32_t> takeUnit() {
    constexpr std::size_t digits = 4;
    const std::string_view hex = rest().substr(0, digits);
    std::uint32_t unit = 0;
    const auto [end, code] = std::from_chars(hex.data(), hex.data() + hex.size(), unit, 16);
    if (code != std::errc{} || hex.size() != digits || end != hex.data() + digits) return std::nullopt;
    position_ += digits;
    return unit;
  }

  std::string_view text_;
  std::size_t position_ = 0;
};

}  // namespace

StringsTable parseStringsFile(std::string_view text, std::vector<std::size_t>* problems) {
  StringsTable table;
  Reader reader(text);
  while (reader.skipBlanksAndComments(), !reader.atEnd()) {
    const std::size_t line = reader.line();
    auto key = reader.takeQuoted();
    std::optional<std::string> value;
    if (key && reader.take('=')) value = reader.takeQuoted();
    if (value && reader.take(';')) {
      table.insert_or_assign(std::move(*key), std::move(*value));
    } else {
      if (problems) problems->push_back(line);
      reader.skipEntry();
    }
  }
  return table;
}

std::vector<std::string> languagesFromEnvironment(const char* lcAll, const char* lcMessages,
                                                  const char* lang) {
  std::vector<std::string> languages;
  for (const char* value : {lcAll, lcMessages, lang}) {
    if (!value || *value == '\0') continue;
    std::string name(value);
    name.resize(std::min(name.find_first_of(".@"), name.size()));
    // The name becomes part of a path, so nothing but letters, digits and "_" goes on.
    const bool isPlain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
    if (isPlain && !name.empty() && name != "C" && name != "POSIX") {
      languages.push_back(name);
      if (const auto end = name.find('_'); end != std::string::npos) languages.push_back(name.substr(0, end));
    }
    break;  // the first variable that is set decides
  }
  if (std::find(languages.begin(), languages.end(), "en") == languages.end()) languages.emplace_back("en");
  return languages;
}
