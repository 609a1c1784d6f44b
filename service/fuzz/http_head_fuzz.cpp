// The head of a request, up to the empty line, and the escapes in what it says.
#include <cstdint>
#include <string_view>

#include "service/Encoding.h"
#include "service/HttpHead.h"
#include "testing/FuzzInvariant.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kzv::service;
  const auto request = parseHead({reinterpret_cast<const char*>(data), size});
  if (!request) return 0;
  requireThat(request->path.starts_with('/'), "a request names a path");
  for (const auto& [name, value] : request->headers)
    requireThat(value.find_first_of(std::string_view("\0\r\n", 3)) == std::string::npos,
                "a value is one line");
  const std::string framing = framingHead(*request);
  requireThat(framing.ends_with("\r\n\r\n"), "a head ends");
  const auto again = parseHead(std::string_view(framing).substr(0, framing.size() - 4));
  requireThat(again.has_value(), "what the library gets to see is a head");
  requireThat(
      request->header("Transfer-Encoding") || again->contentLength() == request->contentLength().value_or(0),
      "both see the same length");
  requireThat(urlDecode(urlEncode(request->path), false) == request->path, "escapes can be undone");
  formDecode(request->query);
  for (const auto& [name, value] : request->headers) {
    base64Decode(value);
    base64UrlDecode(value);
  }
  return 0;
}
