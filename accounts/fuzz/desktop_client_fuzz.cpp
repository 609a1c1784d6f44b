// The file in which the service's desktop client records its folder.
#include <cstdint>
#include <string_view>

#include "accounts/DesktopClient.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  desktopClientFolderFrom({reinterpret_cast<const char*>(data), size});
  return 0;
}
