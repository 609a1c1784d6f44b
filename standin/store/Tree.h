#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "standin/store/NormalPath.h"
#include "standin/store/Store.h"

namespace kzv::standin {

/// One item of a query's result; the views are valid until the next row is read.
struct EntryView {
  std::int64_t id = 0;
  std::int64_t parent = 0;
  std::string_view lower;
  std::string_view display;
  bool isFolder = false;
  /// Journal number of its last change.
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

/// The same, owning its texts.
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

/// The last path of a deleted item.
struct TombstoneView {
  std::string_view lower;
  std::string_view display;
};

/// The folder that a cursor covers.
struct Scope {
  /// Id of the folder; minus the tree's number for the root.
  std::int64_t folderId = 0;
  std::string folderLower;
  bool recursive = false;
};

/// The position of a listing: by id for the children of a folder, else by path.
struct ListPosition {
  std::int64_t afterId = 0;
  std::string afterPath;
};

struct FeedPage {
  /// Journal number up to which all changes have been returned.
  std::int64_t position = 0;
  bool hasMore = false;
  /// The folder itself, or one above it, was deleted and created again: it must be listed anew.
  bool folderReplaced = false;
};

/// Receives the items of a page in order.
struct EntrySink {
  std::function<void(const EntryView&)> entry;
  std::function<void(const TombstoneView&)> deleted;
};

/// Read access to one tree over the connection of a Reader or Writer, which must outlive it; same thread.
/// Errors: DatabaseError.
class Tree {
 public:
  Tree(Database& database, std::int64_t tree) : database_(database), tree_(tree) {}

  std::int64_t number() const { return tree_; }
  std::int64_t rootId() const { return -tree_; }

  std::optional<Entry> find(std::string_view lower) const;
  std::optional<Entry> byId(std::int64_t id) const;
  /// Any revision of a live file, with its current name; or of a recently deleted file, with its last name
  /// and parent 0.
  std::optional<Entry> byRev(std::int64_t rev) const;
  /// The display form of a deleted item's path.
  std::optional<std::string> tombstone(std::string_view lower) const;

  /// Live items of the scope after `position`, at most `limit`; advances `position`. A recursive listing
  /// includes the folder itself. @return true when there may be more.
  bool list(const Scope& scope, ListPosition& position, std::size_t limit, const EntrySink& sink) const;
  /// The same for deleted items.
  bool listTombstones(const Scope& scope, ListPosition& position, std::size_t limit,
                      const EntrySink& sink) const;
  /// Changes of the scope after journal number `after`, at most `limit`, oldest first. Skips a
  /// bounded number of changes elsewhere in the tree, so a page may be empty although hasMore is true.
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

/// A parent of new items. The root is {Tree::rootId(), {}}.
struct Folder {
  std::int64_t id = 0;
  NormalPath path;
};

/// The content and the times of a new revision.
struct FileContent {
  std::int64_t content = 0;
  std::int64_t sizeBytes = 0;
  std::int64_t clientModified = 0;
  std::int64_t serverModified = 0;
};

/// Changes one tree in one transaction. Updates the journal, the tombstones and the used bytes. The caller
/// must have checked names and conflicts.
class TreeEditor {
 public:
  TreeEditor(Store::Writer& writer, std::int64_t tree)
      : writer_(writer), database_(writer.database()), tree_(writer.database(), tree) {}

  const Tree& tree() const { return tree_; }

  /// Creates `folder` and its missing parents. @return absent when a file is in the way.
  std::optional<Folder> ensureFolder(const NormalPath& folder);
  /// Adds an item; only the last component of `path` is used, the rest is the parent's. @return its id.
  std::int64_t addFile(const NormalPath& path, const Folder& parent, const FileContent& file);
  std::int64_t addFolder(const NormalPath& path, const Folder& parent);
  /// Adds `count` files with generated names, which must be free, and contents from `contents` in rotation.
  /// Fast enough for a million files.
  void addManyFiles(const Folder& parent, std::size_t count, const std::vector<FileContent>& contents);
  /// Replaces a file's bytes: same id, new rev.
  void replaceFile(const Entry& file, const FileContent& content);
  /// Deletes the item with everything below it. Revisions of recently deleted files remain (see byRev()).
  void remove(const Entry& entry);
  /// Moves the item with everything below it; `to` must be free and `parent` exist. Ids and revs stay.
  void move(const Entry& entry, const NormalPath& to, const Folder& parent);
  /// Copies the item with everything below it, under new ids and revs. @return the id of the copy.
  std::int64_t copy(const Entry& entry, const NormalPath& to, const Folder& parent, std::int64_t now);

 private:
  std::int64_t insert(const NormalPath& path, const Folder& parent, const FileContent* file);
  void bury(const Entry& entry);
  void keepRevisions(const Entry& entry);
  void forgetOldDeletedFiles();
  void addUsed(std::int64_t bytes);

  Store::Writer& writer_;
  Database& database_;
  Tree tree_;
};

/// Rev of a file as text, 31 hexadecimal digits, and back (0 for a malformed one).
std::string revText(std::int64_t rev, std::int64_t tree);
std::int64_t revFromText(std::string_view text);

}  // namespace kzv::standin
