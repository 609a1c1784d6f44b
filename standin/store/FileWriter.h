#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "standin/ServiceState.h"
#include "standin/store/Tree.h"

namespace kzv::standin {

/// Writes a text file as another device would: creates missing parents, replaces an existing file. For
/// seeding and admin routes.
/// @param path  in the tree. @return false when a folder is there, or a file where a parent is needed.
bool writeText(Store::Writer& writer, std::int64_t tree, const NormalPath& path, std::string_view text,
               std::int64_t modified);

}  // namespace kzv::standin
