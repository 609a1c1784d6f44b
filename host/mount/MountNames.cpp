#include "host/mount/MountNames.h"

#include <algorithm>
#include <array>

#include "foundation/Unicode.h"

namespace {

constexpr std::size_t maxNameCharacters = 255;

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

std::size_t characterCount(std::string_view utf8) {
  return static_cast<std::size_t>(
      std::count_if(utf8.begin(), utf8.end(), [](char c) { return !isContinuation(c); }));
}

bool isForbidden(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7F || byte == '\\' || byte == '/';
}

/// ".report.txt.swp" and the further letters that an editor takes when that one is there already.
bool isSwapFile(std::string_view key) {
  const std::size_t dot = key.rfind('.');
  if (!key.starts_with('.') || dot == 0 || dot == std::string_view::npos) return false;
  const std::string_view extension = key.substr(dot + 1);
  if (extension == "swpx" || extension == "kate-swp") return true;
  return extension.size() == 3 && extension.starts_with("sw") && extension[2] >= 'a' && extension[2] <= 'z';
}

bool isLocalOnly(std::string_view key) {
  // The service refuses these, or clients of it leave them alone.
  constexpr std::array names{".ds_store", "desktop.ini",   "thumbs.db",
                             ".dropbox",  ".dropbox.attr", ".dropbox.cache"};
  if (std::find(names.begin(), names.end(), key) != names.end()) return true;
  if (key.starts_with("~$") || key.starts_with(".~") || key.starts_with("._")) return true;
  if (key.starts_with('~') && key.ends_with(".tmp")) return true;
  // Where a desktop's editors write what they rename over the document a moment later.
  if (key.starts_with(".goutputstream-")) return true;
  return isSwapFile(key);
}

}  // namespace

NameKind kindOfName(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || !isValidUtf8(name)) return NameKind::notAllowed;
  if (std::any_of(name.begin(), name.end(), isForbidden) || name.ends_with(' ')) return NameKind::notAllowed;
  if (characterCount(name) > maxNameCharacters) return NameKind::tooLong;
  return isLocalOnly(keyOfName(name)) ? NameKind::localOnly : NameKind::remote;
}

std::string keyOfName(std::string_view name) { return caselessKey(name); }

std::string setAsideName(std::string_view name, std::string_view unique) {
  const std::string suffix = ".replaced-" + std::string(unique);
  while (characterCount(name) + suffix.size() > maxNameCharacters) {
    while (!name.empty() && isContinuation(name.back())) name.remove_suffix(1);
    name.remove_suffix(1);
  }
  return std::string(name) + suffix;
}
