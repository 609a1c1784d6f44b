#pragma once

// Encodings: base64, hex, URLs and forms, times, HTML; and random bytes. Thread-safe.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kzv::standin {

/// base64url without padding (RFC 4648, section 5).
std::string base64UrlEncode(std::string_view bytes);
/// @return absent when the text is not base64url without padding.
std::optional<std::string> base64UrlDecode(std::string_view text);
/// Standard base64 with padding, as HTTP Basic credentials use it (RFC 7617); absent when malformed.
std::optional<std::string> base64Decode(std::string_view text);

/// Lower-case hexadecimal.
std::string hexEncode(std::string_view bytes);

/// Decodes percent-encoding (RFC 3986); a text with a malformed escape is returned as it is.
std::string urlDecode(std::string_view text);
/// Percent-encodes everything but RFC 3986 unreserved characters.
std::string urlEncode(std::string_view text);
/// Fields of an application/x-www-form-urlencoded text or a query; a repeated field keeps its first value.
std::map<std::string, std::string> formDecode(std::string_view text);

/// `&`, `<`, `>` and both quotes as character references, for text and attribute values.
std::string htmlEscape(std::string_view text);

/// Seconds since the epoch as "2024-05-01T09:30:00Z".
std::string isoTime(std::int64_t unixSeconds);
/// The inverse of isoTime(); absent for any other form and for an impossible date.
std::optional<std::int64_t> parseIsoTime(std::string_view text);
/// Seconds since the epoch as an HTTP date (RFC 9110, section 5.6.7).
std::string httpDate(std::int64_t unixSeconds);

/// `count` bytes from the system's secure generator.
std::string randomBytes(std::size_t count);
/// SHA-256 of `bytes`, 32 raw bytes.
std::string sha256(std::string_view bytes);

}  // namespace kzv::standin
