// The service's rules for names: from its public documentation and its answers.
#include <algorithm>
#include <array>

#include "foundation/Unicode.h"
#include "plugin/KZVDropboxFS.h"

namespace {

constexpr std::size_t maxNameUnits = 255;  // UTF-16 code units

bool isForbidden(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7F || byte == '\\' || byte == '/';
}

/// Names of system and temporary files, which the service refuses and its own clients leave alone.
bool isReserved(std::string_view key) {
  constexpr std::array names{"desktop.ini", "thumbs.db",     ".ds_store",     "icon\r",
                             ".dropbox",    ".dropbox.attr", ".dropbox.cache"};
  if (std::find(names.begin(), names.end(), key) != names.end()) return true;
  if (key.starts_with("~$") || key.starts_with(".~")) return true;
  return key.starts_with('~') && key.ends_with(".tmp");
}

}  // namespace

std::optional<NameProblem> KZVDropboxFS::nameProblem(std::string_view name) const {
  using Kind = NameProblem::Kind;
  if (name.empty() || name == "." || name == "..")
    return NameProblem{Kind::malformed, "this is not a valid name"};
  if (!isValidUtf8(name)) return NameProblem{Kind::malformed, "this name is not valid UTF-8"};
  const std::string composed = canonicallyComposed(name);
  if (isReserved(caselessKey(composed)))
    return NameProblem{Kind::reserved, "Dropbox does not store system and temporary files of this name"};
  if (std::any_of(composed.begin(), composed.end(), isForbidden))
    return NameProblem{Kind::malformed, "a name cannot contain a slash, a backslash or a control character"};
  if (composed.ends_with(' ')) return NameProblem{Kind::malformed, "a name cannot end with a space"};
  if (utf16(composed).size() > maxNameUnits)
    return NameProblem{Kind::tooLong, "this name is longer than 255 characters"};
  return std::nullopt;
}

std::string KZVDropboxFS::nameKey(std::string_view name) const { return caselessKey(name); }
