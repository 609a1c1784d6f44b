#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "service/Http.h"

namespace kzv::service {

/// Parses a request line and header fields (RFC 9112, sections 3 and 5). `head` ends before the empty line.
/// @return absent when malformed, or when it could be read in two ways (two lengths, length and chunked).
std::optional<HttpRequest> parseHead(std::string_view head);

/// What the HTTP library needs to know of the same request, as a head it can parse: method and framing only.
/// The library would undo percent escapes in header values, refuse header lines above 8 KiB, answer ranges by
/// itself and compress on request; each would falsify what this program answers.
std::string framingHead(const HttpRequest& request);

}  // namespace kzv::service
