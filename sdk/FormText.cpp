#include "sdk/FormText.h"

namespace {

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

void appendEncoded(std::string& out, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isUnreserved(byte)) {
      out += c;
    } else {
      out += '%';
      out += "0123456789ABCDEF"[byte >> 4];
      out += "0123456789ABCDEF"[byte & 15];
    }
  }
}

}  // namespace

std::string formText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
  std::string text;
  for (const auto& [name, value] : pairs) {
    if (value.empty()) continue;
    if (!text.empty()) text += '&';
    appendEncoded(text, name);
    text += '=';
    appendEncoded(text, value);
  }
  return text;
}
