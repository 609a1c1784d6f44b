// Stored credentials: any text is one or is refused, and what was read is written so that it reads the same.
#include <cstdint>
#include <string_view>

#include "sdk/credentials/CredentialStore.h"
#include "testing/FuzzInvariant.h"

namespace kzv::sdk {

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto credential = credentialFromText({reinterpret_cast<const char*>(data), size});
  if (!credential) return 0;
  requireThat(!credential->userId.empty() && !credential->accessToken.empty(), "a credential is complete");
  const auto again = credentialFromText(credentialText(*credential));
  requireThat(again && again->userId == credential->userId && again->accessToken == credential->accessToken &&
                  again->refreshToken == credential->refreshToken &&
                  again->expiresAtUnixSeconds == credential->expiresAtUnixSeconds,
              "a credential survives being stored");
  return 0;
}

}  // namespace kzv::sdk
