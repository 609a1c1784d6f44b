#include "foundation/StandardFolders.h"

#include <cstdlib>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include "foundation/Paths.h"

namespace {

/// An environment variable's value when it is an absolute path: others are ignored, as the Base Directory
/// rules ask.
std::string absoluteFromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value && value[0] == '/' ? value : "";
}

std::string folder(const char* partUnderHome, const char* xdgVariable, const char* xdgDefault) {
  if (const std::string home = absoluteFromEnvironment("KZV_HOME"); !home.empty()) {
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
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) return entry.pw_dir;
  return "/";
}

std::string expandingTilde(const std::string& path) {
  if (path == "~") return homeFolder();
  if (path.starts_with("~/")) return appendingPathComponent(homeFolder(), path.substr(2));
  return path;
}
