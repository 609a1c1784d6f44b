#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "core/FSItem.h"
#include "foundation/NSDate.h"
#include "foundation/NSDictionary.h"

namespace kzv::cli {

/// A file or folder as `ls` and `stat` show it.
struct Entry {
  std::string path;
  std::string name;
  bool isDirectory = false;
  std::uint64_t sizeBytes = 0;
  std::optional<NSDate::Time> modified;

  static Entry from(const FSItem& item);
  /// @param attributes  from FSPlugin::attributesAtPath.
  static Entry from(const std::string& path, const NSDictionary& attributes);

  /// One JSON object: path, name, dir, size, modified (absent if none). Always valid UTF-8.
  std::string json() const;
  /// The name, with a slash after a folder's, safe for a terminal.
  std::string shownName() const;
  /// The same with the path.
  std::string shownPath() const;
};

}  // namespace kzv::cli
