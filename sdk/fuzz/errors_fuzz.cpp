// Answers that refuse a request, and texts of the service that are shown. The first two bytes are the status.
#include <cstdint>
#include <string_view>

#include "foundation/Unicode.h"
#include "sdk/wire/ErrorReader.h"
#include "sdk/wire/ServiceLimits.h"
#include "sdk/wire/ServiceText.h"
#include "testing/FuzzInvariant.h"

namespace kzv::sdk {

namespace {

void check(const std::string& text) {
  constexpr std::size_t longestCharacter = 4;
  requireThat(isValidUtf8(text), "a shown text is UTF-8");
  requireThat(text.size() <= (servicelimits::textCharacters + 1) * longestCharacter, "a shown text is short");
  for (const char c : text)
    requireThat(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f, "a shown text moves no cursor");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  HttpResponse response;
  response.status = 100 + (data[0] * 256 + data[1]) % 500;
  response.body.assign(reinterpret_cast<const char*>(data) + 2, size - 2);
  response.requestId = response.body;
  const NSErrorRef error = errorFromResponse(response, {"load", "/a"});
  requireThat(error && !error->localizedDescription().empty(), "a refusal has a reason");
  check(error->localizedDescription().substr(std::string_view("Could not load \"/a\": ").size()));
  errorTags(response);
  oauthErrorOf(response);
  check(serviceText(response.body));
  return 0;
}

}  // namespace kzv::sdk
