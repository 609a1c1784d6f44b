#include "standin/Encoding.h"

#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <ctime>
#include <memory>

#include <fmt/format.h>
#include <glib.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "standin/Invariant.h"

namespace kzv::standin {
namespace {

struct GFree {
  void operator()(void* memory) const { g_free(memory); }
};
using OwnedText = std::unique_ptr<char, GFree>;

const guchar* asBytes(std::string_view text) { return reinterpret_cast<const guchar*>(text.data()); }

std::tm utcParts(std::int64_t unixSeconds) {
  std::tm parts{};
  const std::time_t when = unixSeconds;
  gmtime_r(&when, &parts);
  return parts;
}

}  // namespace

std::string base64UrlEncode(std::string_view bytes) {
  const OwnedText padded(g_base64_encode(asBytes(bytes), bytes.size()));
  std::string text(padded.get());
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  return text.substr(0, text.find('='));
}

std::optional<std::string> base64UrlDecode(std::string_view text) {
  std::string standard(text);
  if (standard.find_first_of("+/=") != std::string::npos) return std::nullopt;
  std::replace(standard.begin(), standard.end(), '-', '+');
  std::replace(standard.begin(), standard.end(), '_', '/');
  return base64Decode(standard);
}

std::optional<std::string> base64Decode(std::string_view text) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string padded(text.substr(0, text.find_last_not_of('=') + 1));
  // GLib skips characters outside the alphabet.
  if (padded.size() % 4 == 1 || padded.find_first_not_of(alphabet) != std::string::npos) return std::nullopt;
  padded.append((4 - padded.size() % 4) % 4, '=');
  gsize size = 0;
  const std::unique_ptr<guchar, GFree> bytes(g_base64_decode(padded.c_str(), &size));
  return std::string(reinterpret_cast<const char*>(bytes.get()), size);
}

std::string hexEncode(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  boost::algorithm::hex_lower(bytes.begin(), bytes.end(), std::back_inserter(text));
  return text;
}

std::string urlDecode(std::string_view text) {
  const std::unique_ptr<GBytes, decltype(&g_bytes_unref)> decoded(
      g_uri_unescape_bytes(text.data(), static_cast<gssize>(text.size()), nullptr, nullptr), g_bytes_unref);
  if (!decoded) return std::string(text);
  gsize size = 0;
  const auto* bytes = static_cast<const char*>(g_bytes_get_data(decoded.get(), &size));
  return bytes ? std::string(bytes, size) : std::string();
}

std::string urlEncode(std::string_view text) {
  return OwnedText(g_uri_escape_bytes(asBytes(text), text.size(), nullptr)).get();
}

std::map<std::string, std::string> formDecode(std::string_view text) {
  std::string spaced(text);
  std::replace(spaced.begin(), spaced.end(), '+', ' ');
  std::map<std::string, std::string> fields;
  for (std::string_view rest = spaced; !rest.empty();) {
    const auto end = std::min(rest.find('&'), rest.size());
    const std::string_view pair = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    const auto equals = std::min(pair.find('='), pair.size());
    if (pair.empty()) continue;
    fields.emplace(urlDecode(pair.substr(0, equals)),
                   urlDecode(pair.substr(std::min(equals + 1, pair.size()))));
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
  const std::tm parts = utcParts(unixSeconds);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::optional<std::int64_t> parseIsoTime(std::string_view text) {
  std::tm parts{};
  const std::string terminated(text);
  if (!::strptime(terminated.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts)) return std::nullopt;
  const std::int64_t seconds = ::timegm(&parts);
  // strptime() accepts other forms as well, and timegm() carries 31 April over into May.
  if (isoTime(seconds) != text) return std::nullopt;
  return seconds;
}

std::string httpDate(std::int64_t unixSeconds) {
  const std::tm parts = utcParts(unixSeconds);
  std::string text(32, '\0');
  // English, since this program never leaves the "C" locale.
  text.resize(std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts));
  return text;
}

std::string randomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  const int done = RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count));
  requireInvariant(done == 1, "the system's random generator must work");
  return bytes;
}

std::string sha256(std::string_view bytes) {
  std::string digest(32, '\0');
  const int done = EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()),
                              nullptr, EVP_sha256(), nullptr);
  requireInvariant(done == 1, "SHA-256 is available");
  return digest;
}

}  // namespace kzv::standin
