#include "core/KZVSupport.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <random>

#include <fmt/format.h>
#include <unistd.h>

#include "foundation/Paths.h"
#include "foundation/StandardFolders.h"

namespace {

bool hasSandboxMark() {
  // Every Flatpak sandbox has this file; Snap sets the variable for every confined program.
  if (::access("/.flatpak-info", F_OK) == 0) return true;
  const char* snap = std::getenv("SNAP");
  return snap && *snap != '\0';
}

/// The folders below a user's home in which sandboxes keep their programs' homes.
bool isSandboxFolder(const std::string& name) {
  return name == "Library" || name == "snap" || name == ".snap" || name == ".var";
}

}  // namespace

bool KZVSupport::isSandboxed() {
  if (!hasSandboxMark()) return false;
  std::string folder = homeFolder();
  for (int level = 0; level < 3; ++level) folder = deletingLastPathComponent(folder);
  return isSandboxFolder(lastPathComponent(folder));
}

std::string KZVSupport::uniquePathComponent() {
  // 128 random bits from the system: unique also between processes, without checking the disk.
  std::random_device source;
  std::array<std::uint32_t, 4> words{};
  for (auto& word : words) word = source();
  return fmt::format("{:08x}-{:08x}-{:08x}-{:08x}", words[0], words[1], words[2], words[3]);
}
