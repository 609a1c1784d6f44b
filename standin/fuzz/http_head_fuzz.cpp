// The head of a request without the empty line at its end, and the encodings in its parts.
#include <cstdint>
#include <string>
#include <string_view>

#include "standin/Encoding.h"
#include "standin/http/HttpSession.h"
#include "testing/FuzzInvariant.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kzv::standin;
  const auto request = parseRequestHead(std::string(reinterpret_cast<const char*>(data), size) + "\r\n\r\n");
  if (!request) return 0;
  requireThat(request->path.starts_with('/'), "a request names a path");
  for (const auto& [name, value] : request->headers)
    requireThat(value.find_first_of(std::string_view("\0\r\n", 3)) == std::string::npos,
                "a value is one line");
  requireThat(urlDecode(urlEncode(request->path)) == request->path, "escapes can be undone");
  formDecode(request->query);
  for (const auto& [name, value] : request->headers) {
    base64Decode(value);
    base64UrlDecode(value);
  }
  return 0;
}
