#include <algorithm>

#include "standin/store/Tree.h"
#include "standin/store/TreeRows.h"

namespace kzv::standin {
namespace {

// Changes outside the scope that one page may skip; it may then be empty, with has_more set.
constexpr std::size_t kMaxSkipped = 50000;

bool covers(const Scope& scope, const EntryView& entry) {
  if (!scope.recursive) return entry.parent == scope.folderId;
  return entry.id == scope.folderId || isBelow(entry.lower, scope.folderLower);
}

bool coversDeleted(const Scope& scope, std::string_view lower) {
  if (!scope.recursive) return parentOf(lower) == scope.folderLower;
  return lower == scope.folderLower || isBelow(lower, scope.folderLower);
}

// Whether the deletion of `lower` removed the folder, in a way that the feed would not report: a recursive
// feed reports the folder's own deletion.
bool removedFolder(const Scope& scope, std::string_view lower) {
  if (scope.folderLower.empty()) return false;
  return isBelow(scope.folderLower, lower) || (lower == scope.folderLower && !scope.recursive);
}

}  // namespace

// It is enough to report each live item once, at its last change, and each deletion: later states of an item
// supersede earlier ones, and for an item that was deleted or moved away the deletion of its old path has a
// higher number than any omitted change.
FeedPage Tree::changes(const Scope& scope, std::int64_t after, std::size_t limit,
                       const EntrySink& sink) const {
  Query live = database_.query("SELECT " KZV_ENTRY_COLUMNS " FROM" KZV_ENTRY_TABLES
                               "WHERE e.tree=?1 AND e.seq>?2 ORDER BY e.seq",
                               tree_, after);
  Query gone = database_.query(
      "SELECT seq, path_lower, path_display FROM deletions WHERE tree=?1 AND seq>?2 ORDER BY seq", tree_,
      after);
  bool moreLive = live.step();
  bool moreGone = gone.step();
  FeedPage page;
  page.position = after;
  std::size_t reported = 0;
  std::size_t skipped = 0;
  while (moreLive || moreGone) {
    const bool takeLive = moreLive && (!moreGone || live.integer(5) < gone.integer(0));
    const std::int64_t seq = takeLive ? live.integer(5) : gone.integer(0);
    const bool wanted = takeLive ? covers(scope, entryFromRow(live)) : coversDeleted(scope, gone.text(1));
    if (!takeLive && removedFolder(scope, gone.text(1))) page.folderReplaced = true;
    if ((wanted && reported == limit) || skipped == kMaxSkipped) {
      page.hasMore = true;
      return page;
    }
    if (wanted && takeLive) sink.entry(entryFromRow(live));
    if (wanted && !takeLive) sink.deleted({gone.text(1), gone.text(2)});
    ++(wanted ? reported : skipped);
    page.position = seq;
    if (takeLive) {
      moreLive = live.step();
    } else {
      moreGone = gone.step();
    }
  }
  return page;
}

std::int64_t Tree::latestSeq() const {
  auto row = database_.query(
      "SELECT max(coalesce((SELECT max(seq) FROM entries WHERE tree=?1), 0),"
      " coalesce((SELECT max(seq) FROM deletions WHERE tree=?1), 0))",
      tree_);
  row.step();
  return row.integer(0);
}

}  // namespace kzv::standin
