#include <fmt/format.h>

#include "foundation/Unicode.h"
#include "json/JsonText.h"
#include "json/QJJsonParser.h"

namespace {

bool isValid(const PlainText& text) noexcept { return text.isAscii || isGeneralizedUtf8(text.bytes); }

}  // namespace

bool QJJsonParser::scanRestOfString(std::string_view* text) {
  const PlainText plain = plainPrefix(remaining());
  const bool endsAtQuote = remaining().substr(plain.bytes.size()).starts_with('"');
  if (endsAtQuote && isValid(plain)) {
    position_ += plain.bytes.size() + 1;
    *text = plain.bytes;
    return true;
  }
  if (!scanEscapedString()) return false;
  *text = unescaped_;
  return true;
}

bool QJJsonParser::failAtByte(QJJsonErrorCode code, std::string_view format, char byte) {
  return fail(code, fmt::format(fmt::runtime(format), static_cast<unsigned char>(byte)));
}

bool QJJsonParser::scanEscapedString() {
  unescaped_.clear();
  bool hasFoldedPair = false;
  for (;;) {
    const PlainText plain = plainPrefix(remaining());
    if (!isValid(plain)) return fail(QJJsonErrorCode::unicode, "Broken unicode character");
    unescaped_ += plain.bytes;
    position_ += plain.bytes.size();
    const char terminator = current();
    if (terminator == '"') break;
    if (terminator == '\\') {
      ++position_;
      if (!scanEscape(&hasFoldedPair)) return false;
    } else if (terminator == '\0') {
      return fail(QJJsonErrorCode::endOfInput, "Unexpected EOF while parsing string");
    } else {
      return failAtByte(QJJsonErrorCode::controlCharacter, "Unescaped control character '0x{:x}'",
                        terminator);
    }
  }
  ++position_;
  // Two folded pairs may be the halves of one surrogate pair: its only valid form has four bytes.
  if (hasFoldedPair) joinSurrogateHalves(unescaped_);
  return true;
}

// The backslash has been consumed.
bool QJJsonParser::scanEscape(bool* hasFoldedPair) {
  const char escaped = current();
  if (escaped == '\0') return fail(QJJsonErrorCode::endOfInput, "Unexpected EOF while parsing string");
  ++position_;
  switch (escaped) {
    case '"':
    case '\\':
    case '/':
      unescaped_ += escaped;
      return true;
    case 'b':
      unescaped_ += '\b';
      return true;
    case 'f':
      unescaped_ += '\f';
      return true;
    case 'n':
      unescaped_ += '\n';
      return true;
    case 'r':
      unescaped_ += '\r';
      return true;
    case 't':
      unescaped_ += '\t';
      return true;
    case 'u':
      return scanUnicodeEscape(hasFoldedPair);
    default:
      return failAtByte(QJJsonErrorCode::escape, "Illegal escape sequence '0x{:x}'", escaped);
  }
}

bool QJJsonParser::scanUnicodeEscape(bool* hasFoldedPair) {
  char16_t unit = 0;
  if (!scanUnicodeChar(&unit, hasFoldedPair))
    return fail(QJJsonErrorCode::unicode, "Broken unicode character");
  appendCodePoint(unescaped_, unit);
  return true;
}

bool QJJsonParser::scanUnicodeChar(char16_t* unit, bool* hasFoldedPair) {
  if (!scanHexQuad(unit)) return fail(QJJsonErrorCode::unicode, "Missing hex quad");
  if (*unit >= 0xD800 && *unit <= 0xDBFF) {
    *hasFoldedPair = true;
    return foldSurrogatePair(unit);
  }
  if (*unit >= 0xDC00 && *unit <= 0xDFFF)
    return fail(QJJsonErrorCode::unicode, "Invalid high character in surrogate pair");
  return true;
}

// Replaces the high surrogate `unit` by the lowest 16 bits of the pair's character: an escaped pair has
// always been read as one 16-bit unit. The last low surrogate, 0xDFFF, has always been refused.
bool QJJsonParser::foldSurrogatePair(char16_t* unit) {
  char16_t low = 0;
  const bool hasEscape = remaining().starts_with("\\u");
  if (hasEscape) position_ += 2;
  if (!hasEscape || !scanHexQuad(&low))
    return fail(QJJsonErrorCode::unicode, "Missing low character in surrogate pair");
  if (static_cast<char16_t>(low - 0xDC00) >= 0x3FF)
    return fail(QJJsonErrorCode::unicode, "Invalid low surrogate char");
  *unit = static_cast<char16_t>(*unit * 1024 + low + 0x2400);
  return true;
}

bool QJJsonParser::scanHexQuad(char16_t* unit) {
  unsigned value = 0;
  for (int digit = 0; digit < 4; ++digit, ++position_) {
    const char byte = current();
    if (byte >= '0' && byte <= '9') {
      value = value * 16 + static_cast<unsigned>(byte - '0');
    } else if ((byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F')) {
      value = value * 16 + static_cast<unsigned>((byte | 0x20) - 'a') + 10;
    } else {
      return fail(QJJsonErrorCode::unicode, "Missing hex digit in quad");
    }
  }
  *unit = static_cast<char16_t>(value);
  return true;
}
