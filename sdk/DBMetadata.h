#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSDate.h"
#include "foundation/NSObject.h"

/// What the service says of one file, folder or deleted item. Never changes after it has been built, so it
/// may be read from any thread without a lock.
class DBMetadata final : public NSObject {
 public:
  using Contents = std::vector<std::shared_ptr<const DBMetadata>>;
  struct Fields {
    std::string path;  // begins with "/", letter case as far as the service's is known; the root is "/"
    std::string lowercasePath;             // the service's own key for the path
    std::string rev;                       // empty: none (folders, deleted items)
    std::string hash;                      // empty: none
    std::string_view icon = "page_white";  // a text that lives for ever (sdk/IconNames.h)
    std::int64_t totalBytes = 0;
    std::optional<NSDate::Time> lastModifiedDate;
    bool isDirectory = false;
    bool isDeleted = false;
    bool thumbnailExists = false;
    std::shared_ptr<const Contents> contents;  // null: not asked for
  };
  explicit DBMetadata(Fields fields);

  const std::string& path() const noexcept { return path_; }
  std::string filename() const;
  const std::string& lowercasePath() const noexcept;
  /// Compare for equality only; empty when the item has none.
  const std::string& rev() const noexcept { return rev_; }
  /// A digest over the children of a listed folder; empty for everything else.
  const std::string& hash() const noexcept;
  std::string_view icon() const noexcept { return icon_; }
  std::int64_t totalBytes() const noexcept { return totalBytes_; }
  std::optional<NSDate::Time> lastModifiedDate() const noexcept;
  bool isDirectory() const noexcept { return isDirectory_; }
  bool isDeleted() const noexcept { return isDeleted_; }
  bool thumbnailExists() const noexcept { return thumbnailExists_; }
  /// The children of a folder that was loaded with them, in a fixed order; null for everything else.
  const std::shared_ptr<const Contents>& contents() const noexcept { return contents_; }

 private:
  // Laid out for a million of them: the flags share a word, and what is rare or can be derived takes no
  // place.
};
