#include "standin/api/JsonWriter.h"

#include <charconv>

#include <fmt/format.h>
#include <unicode/utf16.h>

#include "standin/Utf8.h"

namespace kzv::standin {
namespace {

bool isPlain(unsigned char c) { return c >= 0x20 && c != '"' && c != '\\'; }

void appendEscape(std::string& out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
  }
}

}  // namespace

void appendJsonEscaped(std::string& out, std::string_view text) {
  std::size_t from = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isPlain(static_cast<unsigned char>(text[i]))) continue;
    out.append(text, from, i - from);
    appendEscape(out, text[i]);
    from = i + 1;
  }
  out.append(text, from);
}

void JsonWriter::separate() {
  if (needsComma_) out_ += ',';
  needsComma_ = true;
}

JsonWriter& JsonWriter::beginObject() {
  separate();
  out_ += '{';
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  out_ += '}';
  needsComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  separate();
  out_ += '[';
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  out_ += ']';
  needsComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  out_ += '"';
  out_ += name;
  out_ += "\":";
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
  separate();
  out_ += '"';
  appendJsonEscaped(out_, text);
  out_ += '"';
  return *this;
}

JsonWriter& JsonWriter::number(std::int64_t value) {
  separate();
  char digits[24];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), value);
  out_.append(digits, end.ptr);
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) { return raw(value ? "true" : "false"); }

JsonWriter& JsonWriter::raw(std::string_view json) {
  separate();
  out_ += json;
  return *this;
}

std::string asciiJson(std::string_view json) {
  std::string out;
  out.reserve(json.size() + 16);
  const auto length = static_cast<std::int32_t>(json.size());
  for (std::int32_t i = 0; i < length;) {
    const UChar32 read = nextCodePoint(json, i);
    const UChar32 c = read < 0 ? 0xFFFD : read;
    if (c < 0x7F) {
      out += static_cast<char>(c);
    } else if (c <= 0xFFFF) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
    } else {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}\\u{:04x}", static_cast<unsigned>(U16_LEAD(c)),
                     static_cast<unsigned>(U16_TRAIL(c)));
    }
  }
  return out;
}

}  // namespace kzv::standin
