#pragma once
#include <boost/json/fwd.hpp>
#include <functional>
#include <map>
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
/// A record's path is its parent's known path plus the item's name. The answer's path_display is used only if
/// the parent is unknown, since only its last component is sure to have the right case.
class RecordReader {
 public:
  using RecordRef = std::shared_ptr<const DBMetadata>;
  enum class Kind { byTag, file, folder };  // some answers omit ".tag"

  /// @param folderPath  the parent's path; null: taken from path_display.
  /// @return null for an unknown kind of record (isUnderstood() is then true) and for a broken record
  /// (false).
  RecordRef record(const boost::json::object& object, std::shared_ptr<const std::string> folderPath,
                   Kind kind = Kind::byTag);
  bool isUnderstood() const noexcept { return understood_; }

  /// One page of changes. Unknown kinds are omitted. An unreadable entry must not block those after it: with
  /// a path it is returned without a record, so that the path is dropped from caches; without a path in the
  /// account it is omitted.
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

/// Collects the children of one folder, page by page. Not thread-safe.
class ListingBuilder {
 public:
  explicit ListingBuilder(std::string folderPath);
  /// False when the page is broken.
  bool addPage(const boost::json::array& entries);
  /// All children, sorted by the lower-case key. Of several entries for one key (the folder changed while it
  /// was being listed) the last one counts; "deleted" removes it.
  std::shared_ptr<const DBMetadata::Contents> contents();
  void clear() { children_.clear(); }

 private:
  friend class TreeBuilder;
  struct Child {
    std::string key;
    RecordReader::RecordRef record;
  };
  static std::shared_ptr<const DBMetadata::Contents> contentsOf(std::vector<Child> children);

  const std::shared_ptr<const std::string> folderPath_;
  RecordReader reader_;
  std::vector<Child> children_;
};

/// Gathers a folder and everything below it from the pages of a recursive listing, until they become the
/// listings of its folders, each as a ListingBuilder of its own would have made it. Not thread-safe.
///
/// The entries may come in any order, and one that comes later holds. Each folder's letter case is taken from
/// its own entry.
class TreeBuilder {
 public:
  /// @param top  the record of the folder, whose path is in the service's letter case.
  explicit TreeBuilder(std::shared_ptr<const DBMetadata> top);
  /// False when the page is broken or has entries outside of the folder.
  bool addPage(const boost::json::array& entries);
  /// The folder and all folders below it, with their contents; parents before their children. The builder is
  /// empty then.
  std::vector<RecordReader::RecordRef> folders();
  void clear();

 private:
  using RecordRef = RecordReader::RecordRef;
  struct Folder {
    RecordRef record;                         // null: its entry has not come
    std::shared_ptr<const std::string> path;  // as its children share it; null: not known yet
    std::vector<RecordRef> children;          // in the order of their entries
  };
  bool addEntry(const boost::json::object& entry);
  void removeBelow(const std::string& key);
  std::shared_ptr<const DBMetadata::Contents> contentsOf(Folder& folder);

  const RecordRef top_;
  const std::string topKey_;
  RecordReader reader_;
  std::map<std::string, Folder, std::less<>> folders_;  // by key, so that parents precede their children
};

}  // namespace kzv::sdk
