#pragma once
#include <boost/json/fwd.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sdk/DBDeltaEntry.h"
#include "sdk/DBMetadata.h"

namespace kzv::sdk {

/// Builds records from the service's metadata objects. Not thread-safe: one reader per answer.
///
/// A record's path is its parent's known path plus the item's own name. The answer's path_display is taken
/// only where the parent is not known, since only its last component is sure to have the right case.
class RecordReader {
 public:
  using RecordRef = std::shared_ptr<const DBMetadata>;
  enum class Kind { byTag, file, folder };  // how a record says what it is: some answers leave ".tag" out

  /// @param folderPath  the parent's path; null: taken from path_display.
  /// @return null when the object is no record, in which case isUnderstood() tells apart a kind we do not
  /// know (true) from a broken record (false).
  RecordRef record(const boost::json::object& object, std::shared_ptr<const std::string> folderPath,
                   Kind kind = Kind::byTag);
  bool isUnderstood() const noexcept { return understood_; }

  /// One page of changes. Kinds that we do not know are left out. An entry that cannot be read must not hold
  /// up those after it: one with a path is given without a record, so that what is known of the path is
  /// dropped; one without a path of the account is left out.
  /// @param unreadable  grows by the number of entries that could not be read.
  std::vector<DBDeltaEntry> deltaEntries(const boost::json::array& entries, std::size_t& unreadable);

 private:
  RecordRef broken();
  std::optional<DBMetadata::Fields> commonFields(const boost::json::object& object,
                                                 std::shared_ptr<const std::string> folderPath);
  std::shared_ptr<const std::string> folderOfDisplayPath(std::string_view displayPath);

  bool understood_ = true;
  std::shared_ptr<const std::string> lastFolder_;  // neighbours in an answer often share their folder
};

/// Gathers the children of one folder, page by page, until they become the folder's contents.
class ListingBuilder {
 public:
  explicit ListingBuilder(std::string folderPath);
  /// False when the page is broken.
  bool addPage(const boost::json::array& entries);
  /// Everything gathered, sorted by the lower-case key. Of several entries for one key (the folder changed
  /// while it was being listed) the last one holds; an entry that says "deleted" removes.
  std::shared_ptr<const DBMetadata::Contents> contents();
  /// A digest of what the listing holds: equal for equal listings. REQUIRES contents() before.
  std::string hash() const;
  void clear() { children_.clear(); }

 private:
  struct Child {
    std::string key;
    RecordReader::RecordRef record;
  };
  void keepLastOfEachKey();

  const std::shared_ptr<const std::string> folderPath_;
  RecordReader reader_;
  std::vector<Child> children_;
};

}  // namespace kzv::sdk
