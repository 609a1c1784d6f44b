#include "mount/VolumePath.h"

#include <algorithm>

namespace kzv::mount {

std::vector<std::string> componentsOf(std::string_view path) {
  std::vector<std::string> names;
  for (std::size_t start = 1; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    names.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

bool isAtOrBelow(std::string_view path, std::string_view folder) {
  if (folder == "/") return true;
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace kzv::mount
