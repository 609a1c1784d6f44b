#include <charconv>

#include <fmt/format.h>

#include "standin/store/Tree.h"
#include "standin/store/TreeRows.h"

namespace kzv::standin {
namespace {

// The form of the service's revs: a counter, then the namespace.
constexpr std::int64_t kRevBase = 0x015F000000000000;
constexpr std::size_t kRevDigits = 31;
constexpr std::size_t kCounterDigits = 16;

std::optional<Entry> single(Query row) {
  if (!row.step()) return std::nullopt;
  return Entry(entryFromRow(row));
}

}  // namespace

std::string revText(std::int64_t rev, std::int64_t tree) {
  return fmt::format("{:016x}{:015x}", kRevBase + rev, tree);
}

std::int64_t revFromText(std::string_view text) {
  if (text.size() != kRevDigits) return 0;
  std::int64_t value = 0;
  const char* end = text.data() + kCounterDigits;
  if (std::from_chars(text.data(), end, value, 16).ptr != end) return 0;
  return value > kRevBase ? value - kRevBase : 0;
}

std::optional<Entry> Tree::find(std::string_view lower) const {
  return single(database_.query("SELECT " KZV_ENTRY_COLUMNS " FROM" KZV_ENTRY_TABLES
                                "WHERE e.tree=?1 AND e.path_lower=?2",
                                tree_, lower));
}

std::optional<Entry> Tree::byId(std::int64_t id) const {
  return single(database_.query(
      "SELECT " KZV_ENTRY_COLUMNS " FROM" KZV_ENTRY_TABLES "WHERE e.id=?1 AND e.tree=?2", id, tree_));
}

std::optional<Entry> Tree::byRev(std::int64_t rev) const {
  auto current = single(database_.query(
      "SELECT " KZV_ENTRY_COLUMNS " FROM" KZV_ENTRY_TABLES "WHERE e.rev=?1 AND e.tree=?2", rev, tree_));
  if (current) return current;
  return single(database_.query(
      "SELECT r.entry, coalesce(e.parent, 0), coalesce(e.path_lower, d.path_lower),"
      " coalesce(e.path_display, d.path_display), 0, coalesce(e.seq, d.seq), r.rev, r.size, "
      "r.client_modified,"
      " r.server_modified, r.content, c.hash FROM revisions r JOIN contents c ON c.id=r.content"
      " LEFT JOIN entries e ON e.id=r.entry LEFT JOIN deleted_files d ON d.entry=r.entry"
      " WHERE r.rev=?1 AND coalesce(e.tree, d.tree)=?2",
      rev, tree_));
}

std::optional<std::string> Tree::tombstone(std::string_view lower) const {
  auto row =
      database_.query("SELECT path_display FROM tombstones WHERE tree=?1 AND path_lower=?2", tree_, lower);
  if (!row.step()) return std::nullopt;
  return std::string(row.text(0));
}

bool Tree::list(const Scope& scope, ListPosition& position, std::size_t limit, const EntrySink& sink) const {
  const auto rows = static_cast<std::int64_t>(limit) + 1;
  const KeyRange range = subtreeRange(scope.folderLower);
  // The folder's key sorts before everything below it, but siblings such as "/a b" sort between "/a" and
  // "/a/x", so the range starts at "/a/".
  const std::string& from = position.afterPath.empty() ? range.first : position.afterPath;
  if (scope.recursive && position.afterPath.empty() && !scope.folderLower.empty()) {
    if (const auto self = find(scope.folderLower)) {
      sink.entry(self->view());
      --limit;
    }
  }
  Query row = scope.recursive ? database_.query("SELECT " KZV_ENTRY_COLUMNS " FROM" KZV_ENTRY_TABLES
                                                "WHERE e.tree=?1 AND e.path_lower>?2 AND e.path_lower<?3"
                                                " ORDER BY e.path_lower LIMIT ?4",
                                                tree_, from, range.end, rows)
                              : database_.query("SELECT " KZV_ENTRY_COLUMNS " FROM" KZV_ENTRY_TABLES
                                                "WHERE e.parent=?1 AND e.id>?2 ORDER BY e.id LIMIT ?3",
                                                scope.folderId, position.afterId, rows);
  // After a page with only the folder itself the position must advance: "/" sorts before any child.
  if (limit == 0) {
    position.afterPath = range.first;
    return row.step();
  }
  for (std::size_t count = 0; row.step(); ++count) {
    if (count == limit) return true;
    const EntryView view = entryFromRow(row);
    sink.entry(view);
    position.afterId = view.id;
    position.afterPath = view.lower;
  }
  return false;
}

bool Tree::listTombstones(const Scope& scope, ListPosition& position, std::size_t limit,
                          const EntrySink& sink) const {
  const auto rows = static_cast<std::int64_t>(limit) + 1;
  const KeyRange range = subtreeRange(scope.folderLower);
  const std::string& from = position.afterPath.empty() ? range.first : position.afterPath;
  Query row = scope.recursive
                  ? database_.query(
                        "SELECT path_lower, path_display FROM tombstones WHERE tree=?1 AND path_lower>?2"
                        " AND path_lower<?3 ORDER BY path_lower LIMIT ?4",
                        tree_, from, range.end, rows)
                  : database_.query(
                        "SELECT path_lower, path_display FROM tombstones WHERE tree=?1 AND"
                        " parent_lower=?2 AND path_lower>?3 ORDER BY path_lower LIMIT ?4",
                        tree_, scope.folderLower, from, rows);
  for (std::size_t count = 0; row.step(); ++count) {
    if (count == limit) return true;
    sink.deleted({row.text(0), row.text(1)});
    position.afterPath = row.text(0);
  }
  return false;
}

std::size_t Tree::countSubtree(const Entry& entry, std::size_t limit) const {
  if (!entry.isFolder()) return 1;
  const KeyRange range = subtreeRange(entry.lower());
  auto row = database_.query(
      "SELECT count(*) FROM (SELECT 1 FROM entries WHERE tree=?1 AND path_lower>?2 AND path_lower<?3 LIMIT "
      "?4)",
      tree_, range.first, range.end, static_cast<std::int64_t>(limit));
  row.step();
  return static_cast<std::size_t>(row.integer(0)) + 1;
}

std::vector<std::int64_t> Tree::subtreeIds(const Entry& entry) const {
  std::vector<std::int64_t> ids{entry.id()};
  if (!entry.isFolder()) return ids;
  const KeyRange range = subtreeRange(entry.lower());
  auto row = database_.query(
      "SELECT id FROM entries WHERE tree=?1 AND path_lower>?2 AND path_lower<?3 ORDER BY path_lower", tree_,
      range.first, range.end);
  while (row.step()) ids.push_back(row.integer(0));
  return ids;
}

std::int64_t Tree::subtreeBytes(const Entry& entry) const {
  if (!entry.isFolder()) return entry.sizeBytes();
  const KeyRange range = subtreeRange(entry.lower());
  auto row = database_.query(
      "SELECT coalesce(sum(size), 0) FROM entries WHERE tree=?1 AND path_lower>?2 AND path_lower<?3", tree_,
      range.first, range.end);
  row.step();
  return row.integer(0);
}

}  // namespace kzv::standin
