#include "foundation/StandardFolders.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "foundation/Paths.h"

namespace {

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

/// An environment variable's value when it is an absolute path: others are ignored, as the Base Directory
/// rules ask.
std::string absoluteFromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value && value[0] == '/' ? withoutTrailingSlash(value) : "";
}

/// Ours, so a relative folder is meant as typed; to ignore it would mix test data with the user's own.
std::string ownHome() {
  const char* value = std::getenv("KZV_HOME");
  if (!value || value[0] == '\0') return {};
  std::error_code code;
  const std::filesystem::path home = std::filesystem::absolute(value, code);
  return withoutTrailingSlash(code ? value : home.string());
}

std::string folder(const char* partUnderHome, const char* xdgVariable, const char* xdgDefault) {
  if (const std::string home = ownHome(); !home.empty()) {
    return appendingPathComponent(home, partUnderHome);
  }
  std::string base = absoluteFromEnvironment(xdgVariable);
  if (base.empty()) base = appendingPathComponent(homeFolder(), xdgDefault);
  return appendingPathComponent(base, "kzv");
}

}  // namespace

std::string configFolder() { return folder("config", "XDG_CONFIG_HOME", ".config"); }
std::string dataFolder() { return folder("data", "XDG_DATA_HOME", ".local/share"); }
std::string cacheFolder() { return folder("cache", "XDG_CACHE_HOME", ".cache"); }
std::string stateFolder() { return folder("state", "XDG_STATE_HOME", ".local/state"); }

std::string homeFolder() {
  if (std::string home = absoluteFromEnvironment("HOME"); !home.empty()) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) {
    return withoutTrailingSlash(entry.pw_dir);
  }
  return "/";
}

std::string expandingTilde(const std::string& path) {
  if (path == "~") return homeFolder();
  if (path.starts_with("~/")) return appendingPathComponent(homeFolder(), path.substr(2));
  return path;
}
