#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSDate.h"
#include "foundation/NSObject.h"

/// The service's record of one file, folder or deleted item. Immutable, so any thread may read it without a
/// lock.
class DBMetadata final : public NSObject {
 public:
  using Contents = std::vector<std::shared_ptr<const DBMetadata>>;
  struct Fields {
    std::string path;  // begins with "/", in the service's letter case if known; the root is "/"
    /// Instead of `path`, for the children of a listed folder: its path, which they share, and the name.
    std::shared_ptr<const std::string> folderPath;
    std::string name;
    std::string lowercasePath;             // the service's key for the path
    std::string rev;                       // empty: none (folders, deleted items)
    std::string itemId;                    // unchanged by a move; empty: unknown
    std::string_view icon = "page_white";  // of static storage duration (sdk/wire/IconNames.h)
    std::int64_t totalBytes = 0;
    std::optional<NSDate::Time> lastModifiedDate;
    bool isDirectory = false;
    bool isDeleted = false;
    bool thumbnailExists = false;
    std::shared_ptr<const Contents> contents;  // null: not loaded
  };
  explicit DBMetadata(Fields fields);
  ~DBMetadata() override;

  std::string path() const;
  /// The last component; "/" for the root.
  std::string filename() const;
  /// The key by which the service compares paths.
  std::string lowercasePath() const;
  /// Compare for equality only; empty when the item has none.
  std::string rev() const;
  /// The service's id of the item, unchanged by moves and changes; empty if unknown. Compare for equality
  /// only.
  std::string itemId() const;
  std::string_view icon() const noexcept { return {icon_, iconSize_}; }
  std::int64_t totalBytes() const noexcept { return totalBytes_; }
  std::optional<NSDate::Time> lastModifiedDate() const noexcept;
  bool isDirectory() const noexcept { return isDirectory_; }
  bool isDeleted() const noexcept { return isDeleted_; }
  bool thumbnailExists() const noexcept { return thumbnailExists_; }
  /// The children of a folder that was loaded with them, sorted by key; else null.
  const std::shared_ptr<const Contents>& contents() const noexcept;
  /// The path of the folder that it lies in, which the children of one listing share; null for the root.
  const std::shared_ptr<const std::string>& folderPath() const noexcept { return folderPath_; }
  /// What a record that differs in some fields is made from.
  Fields fields() const;

 private:
  // Compact, because there may be a million: children share their folder's path, a revision is packed into 16
  // bytes, an id has no prefix, the flags share a word, and rare or derivable fields are kept elsewhere.
  struct Rare {
    std::string lowercasePath;  // only if not caselessKey(path())
    std::string rev;            // only if not at most 32 hexadecimal digits
    std::string itemId;         // only if not "id:" and 22 characters
    std::shared_ptr<const Contents> contents;
  };
  Rare& rare();
  void setRev(std::string rev);
  void setItemId(std::string itemId);

  std::shared_ptr<const std::string> folderPath_;  // null: the root
  std::string name_;
  std::unique_ptr<Rare> rare_;
  const char* icon_;
  std::int64_t totalBytes_;
  std::int64_t lastModifiedSeconds_;
  std::uint8_t packedRev_[16] = {};
  char shortItemId_[22] = {};  // without "id:"; begins with NUL: none
  std::uint8_t revDigits_ = 0;
  std::uint8_t iconSize_;
  bool isDirectory_ : 1;
  bool isDeleted_ : 1;
  bool thumbnailExists_ : 1;
};
