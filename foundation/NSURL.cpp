#include "foundation/NSURL.h"

#include <algorithm>

namespace {
// RFC 3986: the unreserved characters, and those that may stand in a path segment as they are, plus the
// slash.
bool standsInPath(unsigned char character) {
  if (character >= 0x80) return false;
  if ((character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
      (character >= 'a' && character <= 'z')) {
    return true;
  }
  return std::string_view("-._~!$&'()*+,=:@/").find(static_cast<char>(character)) != std::string_view::npos;
}

int hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}
}  // namespace

std::shared_ptr<NSURL> NSURL::fileURLWithPath(std::string_view path) {
  if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return nullptr;
  constexpr std::string_view hex = "0123456789ABCDEF";
  std::string text = "file://";
  for (const char character : path) {
    const auto byte = static_cast<unsigned char>(character);
    if (standsInPath(byte)) {
      text += character;
    } else {
      text += '%';
      text += hex[byte >> 4];
      text += hex[byte & 15];
    }
  }
  return std::make_shared<NSURL>(std::move(text));
}

std::string NSURL::path() const {
  if (!isFileURL()) return {};
  std::string_view rest = std::string_view(text_).substr(std::string_view("file://").size());
  rest = rest.substr(
      std::min(rest.find('/'), rest.size()));  // an authority ("localhost") may stand before the path
  rest = rest.substr(0, rest.find_first_of("?#"));
  std::string path;
  for (std::size_t at = 0; at < rest.size(); ++at) {
    if (rest[at] == '%' && at + 2 < rest.size() && hexValue(rest[at + 1]) >= 0 &&
        hexValue(rest[at + 2]) >= 0) {
      path += static_cast<char>(hexValue(rest[at + 1]) * 16 + hexValue(rest[at + 2]));
      at += 2;
    } else {
      path += rest[at];
    }
  }
  return path.find('\0') == std::string::npos ? path : std::string();
}
