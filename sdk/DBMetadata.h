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
    std::string path;  // begins with "/", letter case as far as the service's is known; the root is "/"
    /// Instead of `path`, for the children of one folder: its path, which they then share, and their name.
    std::shared_ptr<const std::string> folderPath;
    std::string name;
    std::string lowercasePath;             // the service's own key for the path
    std::string rev;                       // empty: none (folders, deleted items)
    std::string itemId;                    // the same after a move; empty: not told
    std::string_view icon = "page_white";  // of static storage duration (sdk/wire/IconNames.h)
    std::int64_t totalBytes = 0;
    std::optional<NSDate::Time> lastModifiedDate;
    bool isDirectory = false;
    bool isDeleted = false;
    bool thumbnailExists = false;
    std::shared_ptr<const Contents> contents;  // null: not asked for
  };
  explicit DBMetadata(Fields fields);
  ~DBMetadata() override;

  std::string path() const;
  /// The last component; "/" for the root.
  std::string filename() const;
  /// The key under which the service compares paths: its own where the record came from it.
  std::string lowercasePath() const;
  /// Compare for equality only; empty when the item has none.
  std::string rev() const;
  /// The service's name for the item, which it keeps when it is moved or changed; empty when not told.
  /// Compare for equality only.
  std::string itemId() const;
  std::string_view icon() const noexcept { return {icon_, iconSize_}; }
  std::int64_t totalBytes() const noexcept { return totalBytes_; }
  std::optional<NSDate::Time> lastModifiedDate() const noexcept;
  bool isDirectory() const noexcept { return isDirectory_; }
  bool isDeleted() const noexcept { return isDeleted_; }
  bool thumbnailExists() const noexcept { return thumbnailExists_; }
  /// The children of a folder that was loaded with them, in a fixed order; null for everything else.
  const std::shared_ptr<const Contents>& contents() const noexcept;
  /// The path of the folder that it lies in, which the children of one listing share; null for the root.
  const std::shared_ptr<const std::string>& folderPath() const noexcept { return folderPath_; }
  /// What a record that differs in some fields is made from.
  Fields fields() const;

 private:
  // Compact, because there may be a million: children share their folder's path, a revision is packed into 16
  // bytes, an id has no prefix, the flags share a word, and rare or derivable fields are kept elsewhere.
  struct Rare {
    std::string lowercasePath;  // only where caselessKey of the path is another
    std::string rev;            // only where it is not hexadecimal text of at most 32 digits
    std::string itemId;         // only where it is not "id:" and 22 characters
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
