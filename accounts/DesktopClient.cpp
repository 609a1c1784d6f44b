#include "accounts/DesktopClient.h"

#include <cstdint>

#include "core/KZVSupport.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/StandardFolders.h"
#include "foundation/Unicode.h"
#include "json/QJJsonParser.h"

namespace {

constexpr const char* informationFile = ".dropbox/info.json";
/// The client writes a few hundred bytes.
constexpr std::uint64_t limitBytes = std::uint64_t{1024} * 1024;

std::string informationPath() {
  if (!KZVSupport::isSandboxed()) return expandingTilde(std::string("~/") + informationFile);
  // The client runs outside the sandbox, whose home folder is four levels below the user's.
  std::string home = expandingTilde("~/");
  for (int level = 0; level < 4; ++level) home = deletingLastPathComponent(home);
  return appendingPathComponent(home, informationFile);
}

}  // namespace

std::optional<std::string> desktopClientFolder() {
  const auto text = readFile(informationPath(), limitBytes);
  return text ? desktopClientFolderFrom(*text) : std::nullopt;
}

std::optional<std::string> desktopClientFolderFrom(std::string_view text) {
  if (!isValidUtf8(text)) return std::nullopt;
  // Not JSONValue, which logs what it cannot read: the file belongs to another program.
  const id root = QJJsonParser().objectWithString(text);
  const auto* information = as<NSDictionary>(root.get());
  const id personal = information ? information->objectForKey("personal") : nullptr;
  const auto* account = as<NSDictionary>(personal.get());
  const id folder = account ? account->objectForKey("path") : nullptr;
  const std::string* path = textOf(folder);
  return path ? std::optional(*path) : std::nullopt;
}
