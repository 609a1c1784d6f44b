#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace kzv::mount {

/// "/a/b" as {"a", "b"}; "/" as {}.
std::vector<std::string> componentsOf(std::string_view path);

/// Whether `path` is `folder` or below it. Both must be of the same form: name keys, or names as they are
/// shown.
bool isAtOrBelow(std::string_view path, std::string_view folder);

}  // namespace kzv::mount
