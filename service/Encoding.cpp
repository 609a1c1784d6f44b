#include "service/Encoding.h"

#include <array>
#include <cstdlib>
#include <ctime>

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "service/Invariant.h"

namespace kzv::service {
namespace {

constexpr std::string_view kUrlAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view kHexDigits = "0123456789abcdef";

int base64Value(char c) {
  if (c == '+') c = '-';
  if (c == '/') c = '_';
  const auto at = kUrlAlphabet.find(c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

std::optional<std::string> decodeSextets(std::string_view text) {
  if (text.size() % 4 == 1) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() * 3 / 4);
  std::uint32_t bits = 0;
  int held = 0;
  for (const char c : text) {
    const int value = base64Value(c);
    if (value < 0) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(value);
    held += 6;
    if (held >= 8) {
      held -= 8;
      bytes += static_cast<char>((bits >> held) & 0xFF);
    }
  }
  return bytes;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::optional<int> digits(std::string_view text, std::size_t at, std::size_t count) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

}  // namespace

std::string base64UrlEncode(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() * 4 + 2) / 3);
  std::uint32_t bits = 0;
  int held = 0;
  for (const char c : bytes) {
    bits = (bits << 8) | static_cast<unsigned char>(c);
    held += 8;
    while (held >= 6) {
      held -= 6;
      text += kUrlAlphabet[(bits >> held) & 0x3F];
    }
  }
  if (held > 0) text += kUrlAlphabet[(bits << (6 - held)) & 0x3F];
  return text;
}

std::optional<std::string> base64UrlDecode(std::string_view text) {
  if (text.find_first_of("+/=") != std::string_view::npos) return std::nullopt;
  return decodeSextets(text);
}

std::optional<std::string> base64Decode(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  return decodeSextets(text);
}

std::string hexEncode(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xF];
  }
  return text;
}

std::string urlDecode(std::string_view text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += (plusIsSpace && text[i] == '+') ? ' ' : text[i];
    }
  }
  return out;
}

std::string urlEncode(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (isUnreserved(c)) {
      out += c;
    } else {
      out += fmt::format("%{:02X}", static_cast<unsigned>(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

std::map<std::string, std::string> formDecode(std::string_view text) {
  std::map<std::string, std::string> fields;
  while (!text.empty()) {
    const auto end = text.find('&');
    const std::string_view pair = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (pair.empty()) continue;
    const auto equals = pair.find('=');
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
    fields.emplace(urlDecode(pair.substr(0, equals), true), urlDecode(value, true));
  }
  return fields;
}

std::string htmlEscape(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string isoTime(std::int64_t unixSeconds) {
  std::tm parts{};
  const std::time_t when = unixSeconds;
  gmtime_r(&when, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::optional<std::int64_t> parseIsoTime(std::string_view text) {
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  constexpr std::array<std::pair<std::size_t, std::size_t>, 6> fields{
      {{0, 4}, {5, 2}, {8, 2}, {11, 2}, {14, 2}, {17, 2}}};
  std::array<int, 6> values{};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const auto value = digits(text, fields[i].first, fields[i].second);
    if (!value) return std::nullopt;
    values[i] = *value;
  }
  std::tm parts{};
  parts.tm_year = values[0] - 1900;
  parts.tm_mon = values[1] - 1;
  parts.tm_mday = values[2];
  parts.tm_hour = values[3];
  parts.tm_min = values[4];
  parts.tm_sec = values[5];
  const std::int64_t seconds = timegm(&parts);
  // timegm() carries 31 April over into May; a date that does not come back as it was did not exist.
  if (isoTime(seconds) != text) return std::nullopt;
  return seconds;
}

std::string httpDate(std::int64_t unixSeconds) {
  constexpr std::array<const char*, 7> days{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  constexpr std::array<const char*, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm parts{};
  const std::time_t when = unixSeconds;
  gmtime_r(&when, &parts);
  return fmt::format("{}, {:02} {} {:04} {:02}:{:02}:{:02} GMT",
                     days[static_cast<std::size_t>(parts.tm_wday)], parts.tm_mday,
                     months[static_cast<std::size_t>(parts.tm_mon)], parts.tm_year + 1900, parts.tm_hour,
                     parts.tm_min, parts.tm_sec);
}

std::string randomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  const int done = RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count));
  requireInvariant(done == 1, "the system's random generator answers");
  return bytes;
}

std::string sha256(std::string_view bytes) {
  std::string digest(32, '\0');
  const int done = EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()),
                              nullptr, EVP_sha256(), nullptr);
  requireInvariant(done == 1, "SHA-256 is available");
  return digest;
}

}  // namespace kzv::service
