#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace kzv::mount {

/// "/a/b" as {"a", "b"}; "/" has none.
std::vector<std::string> componentsOf(std::string_view path);

/// Whether `path` is `folder` or lies below it. Both in the same form: both keys, or both as they are shown.
bool isAtOrBelow(std::string_view path, std::string_view folder);

}  // namespace kzv::mount
