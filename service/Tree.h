#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/Paths.h"
#include "service/Store.h"

namespace kzv::service {

/// One item, seen in place: the views live until the next row is read.
struct EntryView {
  std::int64_t id = 0;
  std::int64_t parent = 0;
  std::string_view lower;
  std::string_view display;
  bool isFolder = false;
  /// Number of its last change in the journal.
  std::int64_t seq = 0;
  // Files only; 0 and empty for folders. Times in seconds since the epoch.
  std::int64_t rev = 0;
  std::int64_t sizeBytes = 0;
  std::int64_t clientModified = 0;
  std::int64_t serverModified = 0;
  std::int64_t content = 0;
  /// 32 raw bytes.
  std::string_view hash;
};

/// The same with texts of its own.
class Entry {
 public:
  explicit Entry(const EntryView& view)
      : view_(view), lower_(view.lower), display_(view.display), hash_(view.hash) {}
  EntryView view() const {
    EntryView view = view_;
    view.lower = lower_;
    view.display = display_;
    view.hash = hash_;
    return view;
  }
  std::int64_t id() const { return view_.id; }
  std::int64_t parent() const { return view_.parent; }
  bool isFolder() const { return view_.isFolder; }
  std::int64_t rev() const { return view_.rev; }
  std::int64_t content() const { return view_.content; }
  std::int64_t sizeBytes() const { return view_.sizeBytes; }
  std::int64_t clientModified() const { return view_.clientModified; }
  std::int64_t serverModified() const { return view_.serverModified; }
  const std::string& lower() const { return lower_; }
  const std::string& display() const { return display_; }
  const std::string& hash() const { return hash_; }

 private:
  EntryView view_;
  std::string lower_;
  std::string display_;
  std::string hash_;
};

/// A path that existed once; `display` as it was last.
struct TombstoneView {
  std::string_view lower;
  std::string_view display;
};

/// What a cursor covers, in keys of the tree.
struct Scope {
  /// Id of the folder; minus the tree's number for the root.
  std::int64_t folderId = 0;
  std::string folderLower;
  bool recursive = false;
};

/// Where a listing or a feed stands. Exactly one of the two is meaningful in each phase.
struct ListPosition {
  std::int64_t afterId = 0;
  std::string afterPath;
};

struct FeedPage {
  /// Journal number up to which everything was told.
  std::int64_t position = 0;
  bool hasMore = false;
  /// The folder itself, or one above it, was deleted and is back: only a fresh listing can tell what is in
  /// it.
  bool folderReplaced = false;
};

/// Receives the items of a page; either function is called in order.
struct EntrySink {
  std::function<void(const EntryView&)> entry;
  std::function<void(const TombstoneView&)> deleted;
};

/// Read access to one tree over one connection. Lives no longer than the Reader or Writer whose connection it
/// uses; same thread. Errors: DatabaseError.
class Tree {
 public:
  Tree(Database& database, std::int64_t tree) : database_(database), tree_(tree) {}

  std::int64_t number() const { return tree_; }
  std::int64_t rootId() const { return -tree_; }

  std::optional<Entry> find(std::string_view lower) const;
  std::optional<Entry> byId(std::int64_t id) const;
  /// Any revision of a live file: an earlier one comes with the file's present name and its own content.
  std::optional<Entry> byRev(std::int64_t rev) const;
  /// The display form of a path that existed once.
  std::optional<std::string> tombstone(std::string_view lower) const;

  /// Live items of the scope after `position`, at most `limit`; advances `position`. The folder itself
  /// belongs to a recursive listing. @return true when there may be more.
  bool list(const Scope& scope, ListPosition& position, std::size_t limit, const EntrySink& sink) const;
  /// The same for paths that are gone.
  bool listTombstones(const Scope& scope, ListPosition& position, std::size_t limit,
                      const EntrySink& sink) const;
  /// Changes of the scope after journal number `after`, at most `limit`, oldest first. Looks at a bounded
  /// number of changes elsewhere in the tree, so a page may be empty although hasMore is true.
  FeedPage changes(const Scope& scope, std::int64_t after, std::size_t limit, const EntrySink& sink) const;
  /// The number of the newest change in this tree.
  std::int64_t latestSeq() const;
  /// Items at and below `folder`, counted up to `limit`.
  std::size_t countSubtree(const Entry& entry, std::size_t limit) const;
  /// Ids at and below `entry`, parents first.
  std::vector<std::int64_t> subtreeIds(const Entry& entry) const;
  /// Bytes of the files at and below `entry`.
  std::int64_t subtreeBytes(const Entry& entry) const;

  Database& database() const { return database_; }

 private:
  Database& database_;
  std::int64_t tree_;
};

/// A folder new items go into: its id and its path as it is shown. The root is {Tree::rootId(), {}}.
struct Folder {
  std::int64_t id = 0;
  NormalPath path;
};

/// How a new file came into being.
struct FileContent {
  std::int64_t content = 0;
  std::int64_t sizeBytes = 0;
  std::int64_t clientModified = 0;
  std::int64_t serverModified = 0;
};

/// Changes to one tree within one transaction. Every change is journalled, tombstones and the count of used
/// bytes are kept. The caller has checked that names are acceptable and what is in the way.
class TreeEditor {
 public:
  TreeEditor(Store::Writer& writer, std::int64_t tree)
      : writer_(writer), database_(writer.database()), tree_(writer.database(), tree) {}

  const Tree& tree() const { return tree_; }

  /// Makes the missing folders above and including `folder`. @return absent when a file stands where a folder
  /// is needed.
  std::optional<Folder> ensureFolder(const NormalPath& folder);
  /// A new item; only the last component of `path` counts, the rest is the parent's. @return its id.
  std::int64_t addFile(const NormalPath& path, const Folder& parent, const FileContent& file);
  std::int64_t addFolder(const NormalPath& path, const Folder& parent);
  /// `count` new files with generated names in a folder that has none of these yet; they take turns in
  /// `contents`. One statement a file: made for a million of them.
  void addManyFiles(const Folder& parent, std::size_t count, const std::vector<FileContent>& contents);
  /// New bytes for a file that exists: same id, new rev.
  void replaceFile(const Entry& file, const FileContent& content);
  /// Deletes the item with everything below it.
  void remove(const Entry& entry);
  /// Moves the item with everything below it; `to` is free and `parent` exists. Ids and revs stay.
  void move(const Entry& entry, const NormalPath& to, const Folder& parent);
  /// Copies the item with everything below it, under new ids and revs. @return the id of the copy.
  std::int64_t copy(const Entry& entry, const NormalPath& to, const Folder& parent, std::int64_t now);

 private:
  std::int64_t insert(const NormalPath& path, const Folder& parent, const FileContent* file);
  void bury(const Entry& entry);
  void releaseContents(const Entry& entry);
  void addUsed(std::int64_t bytes);

  Store::Writer& writer_;
  Database& database_;
  Tree tree_;
};

/// Rev of a file as text, 31 hexadecimal digits, and back (0 for what is no rev of this tree's kind).
std::string revText(std::int64_t rev, std::int64_t tree);
std::int64_t revFromText(std::string_view text);

}  // namespace kzv::service
