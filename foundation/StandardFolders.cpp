#include "foundation/StandardFolders.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <glib.h>

#include "foundation/Paths.h"

namespace {

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

/// The value of an environment variable if it is an absolute path; the XDG Base Directory rules say to ignore
/// any other. GLib's own functions accept relative values and cache the first result.
std::string absoluteFromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value && value[0] == '/' ? withoutTrailingSlash(value) : "";
}

/// KZV_HOME, resolved against the current folder: ignoring a relative value would mix test data with the
/// user's.
std::string kzvHome() {
  const char* value = std::getenv("KZV_HOME");
  if (!value || value[0] == '\0') return {};
  std::error_code code;
  const std::filesystem::path home = std::filesystem::absolute(value, code);
  return withoutTrailingSlash(code ? value : home.string());
}

std::string folder(const char* partUnderHome, const char* xdgVariable, const char* xdgDefault) {
  if (const std::string home = kzvHome(); !home.empty()) {
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
  const char* home = g_get_home_dir();  // $HOME even when it is relative, else the password database's entry
  return home[0] == '/' ? withoutTrailingSlash(home) : "/";
}

std::string expandingTilde(const std::string& path) {
  if (path == "~") return homeFolder();
  if (path.starts_with("~/")) return appendingPathComponent(homeFolder(), path.substr(2));
  return path;
}
