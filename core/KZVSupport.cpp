#include "core/KZVSupport.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <random>

#include <fmt/format.h>
#include <unistd.h>

bool KZVSupport::isSandboxed() {
  // Flatpak puts this file into every sandbox; Snap sets the variable for every confined program.
  if (::access("/.flatpak-info", F_OK) == 0) return true;
  const char* snap = std::getenv("SNAP");
  return snap && *snap != '\0';
}

std::string KZVSupport::uniquePathComponent() {
  // 128 random bits from the system: unique without asking the disk, also between processes.
  std::random_device source;
  std::array<std::uint32_t, 4> words{};
  for (auto& word : words) word = source();
  return fmt::format("{:08x}-{:08x}-{:08x}-{:08x}", words[0], words[1], words[2], words[3]);
}
