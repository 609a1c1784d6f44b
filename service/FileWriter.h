#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "service/ServiceState.h"
#include "service/Tree.h"

namespace kzv::service {

/// Puts a text at a path as another device would: parents are made, a file is replaced. For seeding and admin
/// routes.
/// @param path  in the tree. @return false when a folder is there, or a file where a parent is needed.
bool writeText(Store::Writer& writer, std::int64_t tree, const NormalPath& path, std::string_view text,
               std::int64_t modified);

}  // namespace kzv::service
