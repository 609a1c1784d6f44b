#include <fmt/format.h>

#include "json/JsonText.h"
#include "json/QJJsonParser.h"

bool QJJsonParser::scanRestOfString(std::string_view* text) {
  const PlainRun run = plainRun(remaining());
  const std::string_view plain(position_, run.sizeBytes);
  const bool endsAtQuote = run.sizeBytes < remaining().size() && position_[run.sizeBytes] == '"';
  if (endsAtQuote && (run.isAscii || isGeneralisedUtf8(plain))) {
    position_ += run.sizeBytes + 1;
    *text = plain;
    return true;
  }
  if (!scanStringPieces()) return false;
  *text = pieces_;
  return true;
}

bool QJJsonParser::scanStringPieces() {
  pieces_.clear();
  hasFoldedUnit_ = false;
  for (;;) {
    const PlainRun run = plainRun(remaining());
    const std::string_view plain(position_, run.sizeBytes);
    if (!run.isAscii && !isGeneralisedUtf8(plain)) {
      addErrorWithCode(QJJsonErrorCode::unicode, "Broken unicode character");
      return false;
    }
    pieces_ += plain;
    position_ += run.sizeBytes;
    const char ending = current();
    if (ending == '"') break;
    if (ending == '\\') {
      ++position_;
      if (!scanEscape()) return false;
      continue;
    }
    if (ending == '\0') {
      addErrorWithCode(QJJsonErrorCode::endOfInput, "Unexpected EOF while parsing string");
    } else {
      addErrorWithCode(QJJsonErrorCode::controlCharacter, fmt::format("Unescaped control character '0x{:x}'",
                                                                      static_cast<unsigned char>(ending)));
    }
    return false;
  }
  ++position_;
  if (hasFoldedUnit_) joinSurrogateHalves(pieces_);
  return true;
}

// The backslash has been passed.
bool QJJsonParser::scanEscape() {
  const char escaped = current();
  if (escaped == '\0') {
    addErrorWithCode(QJJsonErrorCode::endOfInput, "Unexpected EOF while parsing string");
    return false;
  }
  ++position_;
  switch (escaped) {
    case '"':
    case '\\':
    case '/':
      pieces_ += escaped;
      return true;
    case 'b':
      pieces_ += '\b';
      return true;
    case 'f':
      pieces_ += '\f';
      return true;
    case 'n':
      pieces_ += '\n';
      return true;
    case 'r':
      pieces_ += '\r';
      return true;
    case 't':
      pieces_ += '\t';
      return true;
    case 'u':
      return scanUnicodeEscape();
    default:
      addErrorWithCode(QJJsonErrorCode::escape,
                       fmt::format("Illegal escape sequence '0x{:x}'", static_cast<unsigned char>(escaped)));
      return false;
  }
}

bool QJJsonParser::scanUnicodeEscape() {
  unsigned unit = 0;
  if (!scanUnicodeChar(&unit)) {
    addErrorWithCode(QJJsonErrorCode::unicode, "Broken unicode character");
    return false;
  }
  appendUnit(pieces_, unit);
  return true;
}

bool QJJsonParser::scanUnicodeChar(unsigned* unit) {
  if (!scanHexQuad(unit)) {
    addErrorWithCode(QJJsonErrorCode::unicode, "Missing hex quad");
    return false;
  }
  if (*unit >= 0xD800 && *unit <= 0xDBFF) return foldSurrogatePair(unit);
  if (*unit >= 0xDC00 && *unit <= 0xDFFF) {
    addErrorWithCode(QJJsonErrorCode::unicode, "Invalid high character in surrogate pair");
    return false;
  }
  return true;
}

// `unit` is the high surrogate and becomes the pair's lowest 16 bits: strings here are counted in 16-bit
// units and an escaped pair has always been read as one of them. The last low surrogate, 0xDFFF, is refused
// on purpose, as it has always been.
bool QJJsonParser::foldSurrogatePair(unsigned* unit) {
  unsigned low = 0;
  const bool hasEscape = remaining().starts_with("\\u");
  if (hasEscape) position_ += 2;
  if (!hasEscape || !scanHexQuad(&low)) {
    addErrorWithCode(QJJsonErrorCode::unicode, "Missing low character in surrogate pair");
    return false;
  }
  if (((low - 0xDC00) & 0xFFFF) >= 0x3FF) {
    addErrorWithCode(QJJsonErrorCode::unicode, "Invalid low surrogate char");
    return false;
  }
  *unit = (*unit * 1024 + low + 0x2400) & 0xFFFF;
  hasFoldedUnit_ = true;
  return true;
}

bool QJJsonParser::scanHexQuad(unsigned* unit) {
  *unit = 0;
  for (int digit = 0; digit < 4; ++digit, ++position_) {
    const char byte = current();
    unsigned value = 0;
    if (byte >= '0' && byte <= '9') {
      value = static_cast<unsigned>(byte - '0');
    } else if ((byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F')) {
      value = static_cast<unsigned>((byte | 0x20) - 'a') + 10;
    } else {
      addErrorWithCode(QJJsonErrorCode::unicode, "Missing hex digit in quad");
      return false;
    }
    *unit = *unit * 16 + value;
  }
  return true;
}
