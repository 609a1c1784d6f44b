#pragma once

#include <optional>
#include <string_view>

#include "standin/http/Http.h"

namespace kzv::standin {

class Connection;

/// Serves the requests of one connection in order, until it is closed. Blocks: HTTP/1.1 (RFC 9112) with
/// keep-alive, chunked request bodies and "Expect: 100-continue", parsed and written by Boost.Beast.
void serveHttp(Connection& connection, const HttpHandler& handler);

/// Parses a request line and header fields, with the empty line at their end.
/// @return absent when they are malformed, incomplete, larger than 256 KiB, or ambiguous about the body's
/// length.
std::optional<HttpRequest> parseRequestHead(std::string_view head);

}  // namespace kzv::standin
