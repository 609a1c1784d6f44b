#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "sdk/wire/ServiceLimits.h"

namespace kzv::sdk {

/// Makes sure that a paged list ends: every page must have entries or a new cursor. Not thread-safe.
class PageSequence {
 public:
  static constexpr const char* tooLong = "the service lists more entries than there can be";

  explicit PageSequence(std::size_t maxEntries = servicelimits::folderEntries) : maxEntries_(maxEntries) {}

  /// Checks a page by its number of entries and, if more pages follow, the cursor for the next one.
  /// @return null, or the problem, as a text that follows "Could not load ...: "; `tooLong` beyond the
  /// maximum number of entries.
  const char* problemWith(std::size_t entries, bool hasMore, std::string_view cursor) {
    entries_ += entries;
    if (entries_ > maxEntries_) return tooLong;
    if (!hasMore) return nullptr;
    emptyPages_ = entries == 0 ? emptyPages_ + 1 : 0;
    if (cursor.empty() || cursor == lastCursor_ || emptyPages_ > servicelimits::emptyPages)
      return "the service's list does not end";
    lastCursor_ = cursor;
    return nullptr;
  }

 private:
  std::size_t maxEntries_;
  std::size_t entries_ = 0;
  std::size_t emptyPages_ = 0;
  std::string lastCursor_;
};

}  // namespace kzv::sdk
