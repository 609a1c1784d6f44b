#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "sdk/ServiceLimits.h"

/// Watches over a list that comes in pages, each of which may promise another, so that it ends: every page
/// has to bring something or at least lead on. Not thread-safe.
class PageSequence {
 public:
  explicit PageSequence(std::size_t maxEntries = servicelimits::folderEntries) : maxEntries_(maxEntries) {}

  /// Takes note of a page: its number of entries, and, when more are promised, the cursor that leads to them.
  /// @return null, or what is wrong with the list, in words that follow "Could not load ...: ".
  const char* problemWith(std::size_t entries, bool hasMore, std::string_view cursor) {
    entries_ += entries;
    if (entries_ > maxEntries_) return "the service lists more entries than there can be";
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
