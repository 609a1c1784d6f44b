#include "sdk/wire/FormText.h"

#include <algorithm>
#include <memory>

#include <curl/curl.h>

#include "foundation/Fatal.h"
#include "foundation/Secrets.h"

namespace kzv::sdk {

namespace {

/// Copies a text from libcurl, then clears and frees it: codes and verifiers are sent as forms.
std::string taken(char* text, std::size_t sizeBytes) {
  std::string copy(required(text, "libcurl must have memory for a text"), sizeBytes);
  ::explicit_bzero(text, sizeBytes);
  curl_free(text);
  return copy;
}

std::string encoded(std::string_view text) {
  char* escaped = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
  return taken(escaped, escaped ? std::char_traits<char>::length(escaped) : 0);
}

std::string decoded(std::string text) {
  std::replace(text.begin(), text.end(), '+', ' ');
  int sizeBytes = 0;
  char* plain = curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &sizeBytes);
  return taken(plain, static_cast<std::size_t>(sizeBytes));
}

}  // namespace

std::string formText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
  std::string text;
  for (const auto& [name, value] : pairs) {
    if (value.empty()) continue;
    if (!text.empty()) text += '&';
    text += encoded(name) + '=' + encoded(value);
  }
  return text;
}

std::optional<std::string> formField(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    const std::string_view pair = text.substr(0, text.find('&'));
    const std::size_t nameSize = std::min(pair.find('='), pair.size());
    if (pair.substr(0, nameSize) == name) {
      const std::string_view value = pair.substr(std::min(nameSize + 1, pair.size()));
      return value.empty() ? std::string() : decoded(std::string(value));
    }
    text.remove_prefix(std::min(pair.size() + 1, text.size()));
  }
  return std::nullopt;
}

}  // namespace kzv::sdk
