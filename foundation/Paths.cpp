#include "foundation/Paths.h"

namespace {
std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path;
}
}  // namespace

std::string lastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return "/";
  return std::string(path.substr(path.rfind('/') + 1));  // npos + 1 is 0: the whole text
}

std::string deletingLastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  return std::string(withoutTrailingSlashes(path.substr(0, slash == 0 ? 1 : slash)));
}

std::string appendingPathComponent(std::string_view path, std::string_view component) {
  std::string joined;
  joined.reserve(path.size() + component.size() + 1);
  const auto append = [&](std::string_view text) {
    for (const char character : text) {
      if (character != '/' || !joined.ends_with('/')) joined += character;
    }
  };
  append(path);
  if (!path.empty() && !component.empty()) append("/");
  append(component);
  return joined;
}
