#include <algorithm>

#include <fmt/format.h>

#include "standin/Invariant.h"
#include "standin/store/Bodies.h"
#include "standin/store/Tree.h"
#include "standin/store/TreeRows.h"

namespace kzv::standin {

namespace {

// Revisions of recently deleted files are kept, up to this number of files and bytes.
constexpr std::int64_t kMaxDeletedFiles = 1000;
constexpr std::int64_t kMaxDeletedBytes = std::int64_t{256} << 20;

// An item's path begins with its parent's path in the parent's own case, not in the request's.
NormalPath childOf(const Folder& parent, const NormalPath& path) {
  NormalPath child{parent.path.display, parent.path.lower};
  child.display += '/';
  child.display += path.name();
  child.lower += '/';
  child.lower += nameOf(path.lower);
  return child;
}

NormalPath pathOf(const Entry& entry) { return {entry.display(), entry.lower()}; }

}  // namespace

std::optional<Folder> TreeEditor::ensureFolder(const NormalPath& folder) {
  if (folder.isRoot()) return Folder{tree_.rootId(), {}};
  if (const auto found = tree_.find(folder.lower)) {
    if (!found->isFolder()) return std::nullopt;
    return Folder{found->id(), pathOf(*found)};
  }
  const auto parent = ensureFolder(folder.parent());
  if (!parent) return std::nullopt;
  return Folder{addFolder(folder, *parent), childOf(*parent, folder)};
}

std::int64_t TreeEditor::insert(const NormalPath& asked, const Folder& parent, const FileContent* file) {
  const NormalPath path = childOf(parent, asked);
  const std::int64_t seq = writer_.nextSeq();
  database_.execute("DELETE FROM tombstones WHERE tree=?1 AND path_lower=?2", tree_.number(), path.lower);
  if (!file) {
    database_.execute(
        "INSERT INTO entries(tree, parent, path_lower, path_display, folder, seq) VALUES(?1, ?2, ?3, ?4, 1, "
        "?5)",
        tree_.number(), parent.id, path.lower, path.display, seq);
  } else {
    database_.execute(
        "INSERT INTO entries(tree, parent, path_lower, path_display, folder, seq, rev, size, client_modified,"
        " server_modified, content) VALUES(?1, ?2, ?3, ?4, 0, ?5, ?5, ?6, ?7, ?8, ?9)",
        tree_.number(), parent.id, path.lower, path.display, seq, file->sizeBytes, file->clientModified,
        file->serverModified, file->content);
  }
  return database_.lastInsertId();
}

std::int64_t TreeEditor::addFolder(const NormalPath& path, const Folder& parent) {
  return insert(path, parent, nullptr);
}

std::int64_t TreeEditor::addFile(const NormalPath& path, const Folder& parent, const FileContent& file) {
  useContent(writer_, file.content, 1);
  addUsed(file.sizeBytes);
  return insert(path, parent, &file);
}

void TreeEditor::addManyFiles(const Folder& parent, std::size_t count,
                              const std::vector<FileContent>& contents) {
  const KeyRange range = subtreeRange(parent.path.lower);
  database_.execute("DELETE FROM tombstones WHERE tree=?1 AND path_lower>?2 AND path_lower<?3",
                    tree_.number(), range.first, range.end);
  std::int64_t bytes = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const FileContent& file = contents[i % contents.size()];
    const std::string name = fmt::format("{:05}.txt", i + 1);
    const std::string lower = parent.path.lower + "/file " + name;
    const std::string display = parent.path.display + "/File " + name;
    database_.execute(
        "INSERT INTO entries(tree, parent, path_lower, path_display, folder, seq, rev, size, client_modified,"
        " server_modified, content) VALUES(?1, ?2, ?3, ?4, 0, ?5, ?5, ?6, ?7, ?8, ?9)",
        tree_.number(), parent.id, lower, display, writer_.nextSeq(), file.sizeBytes, file.clientModified,
        file.serverModified, file.content);
    bytes += file.sizeBytes;
  }
  addUsed(bytes);
  for (std::size_t i = 0; i < std::min(count, contents.size()); ++i) {
    const std::size_t uses = (count - i + contents.size() - 1) / contents.size();
    useContent(writer_, contents[i].content, static_cast<std::int64_t>(uses));
  }
}

void TreeEditor::replaceFile(const Entry& file, const FileContent& content) {
  const std::int64_t seq = writer_.nextSeq();
  database_.execute(
      "INSERT INTO revisions(rev, entry, size, client_modified, server_modified, content)"
      " SELECT rev, id, size, client_modified, server_modified, content FROM entries WHERE id=?1",
      file.id());
  useContent(writer_, content.content, 1);
  database_.execute(
      "UPDATE entries SET seq=?2, rev=?2, size=?3, client_modified=?4, server_modified=?5, content=?6 WHERE "
      "id=?1",
      file.id(), seq, content.sizeBytes, content.clientModified, content.serverModified, content.content);
  addUsed(content.sizeBytes - file.sizeBytes());
}

void TreeEditor::addUsed(std::int64_t bytes) {
  if (bytes != 0) database_.execute("UPDATE accounts SET used=used+?2 WHERE tree=?1", tree_.number(), bytes);
}

// Writes the deletion to the journal, where one row covers the whole subtree, and the tombstones.
void TreeEditor::bury(const Entry& entry) {
  database_.execute("INSERT INTO deletions(tree, seq, path_lower, path_display) VALUES(?1, ?2, ?3, ?4)",
                    tree_.number(), writer_.nextSeq(), entry.lower(), entry.display());
  const KeyRange range = subtreeRange(entry.lower());
  database_.execute(
      "INSERT OR REPLACE INTO tombstones(tree, path_lower, parent_lower, path_display) VALUES(?1, ?2, ?3, "
      "?4)",
      tree_.number(), entry.lower(), parentOf(entry.lower()), entry.display());
  if (!entry.isFolder()) return;
  database_.execute(
      "INSERT OR REPLACE INTO tombstones(tree, path_lower, parent_lower, path_display)"
      " SELECT e.tree, e.path_lower, p.path_lower, e.path_display FROM entries e JOIN entries p ON "
      "p.id=e.parent"
      " WHERE e.tree=?1 AND e.path_lower>?2 AND e.path_lower<?3",
      tree_.number(), range.first, range.end);
}

// Keeps all revisions, with the current ones, of files that are about to be deleted.
void TreeEditor::keepRevisions(const Entry& entry) {
  const KeyRange range = subtreeRange(entry.lower());
  database_.execute(
      "INSERT INTO revisions(rev, entry, size, client_modified, server_modified, content)"
      " SELECT rev, id, size, client_modified, server_modified, content FROM entries"
      " WHERE tree=?1 AND folder=0 AND (id=?4 OR path_lower>?2 AND path_lower<?3)",
      tree_.number(), range.first, range.end, entry.id());
  database_.execute(
      "INSERT INTO deleted_files(entry, tree, seq, path_lower, path_display, bytes)"
      " SELECT id, tree, ?5, path_lower, path_display, (SELECT sum(size) FROM revisions WHERE entry=id)"
      " FROM entries WHERE tree=?1 AND folder=0 AND (id=?4 OR path_lower>?2 AND path_lower<?3)",
      tree_.number(), range.first, range.end, entry.id(), writer_.nextSeq());
}

void TreeEditor::forgetOldDeletedFiles() {
  {
    auto row = database_.query("SELECT count(*), sum(bytes) FROM deleted_files");
    row.step();
    if (row.integer(0) <= kMaxDeletedFiles && row.integer(1) <= kMaxDeletedBytes) return;
  }
  std::vector<std::int64_t> entries;
  {
    auto row = database_.query(
        "SELECT entry FROM (SELECT entry, row_number() OVER newest AS number, sum(bytes) OVER newest AS total"
        " FROM deleted_files WINDOW newest AS (ORDER BY seq DESC, entry DESC)) WHERE number>?1 OR total>?2",
        kMaxDeletedFiles, kMaxDeletedBytes);
    while (row.step()) entries.push_back(row.integer(0));
  }
  for (const std::int64_t entry : entries) {
    std::vector<std::int64_t> contents;
    {
      auto row = database_.query("SELECT content FROM revisions WHERE entry=?1", entry);
      while (row.step()) contents.push_back(row.integer(0));
    }
    for (const std::int64_t content : contents) useContent(writer_, content, -1);
    database_.execute("DELETE FROM revisions WHERE entry=?1", entry);
    database_.execute("DELETE FROM deleted_files WHERE entry=?1", entry);
  }
}

void TreeEditor::remove(const Entry& entry) {
  addUsed(-tree_.subtreeBytes(entry));
  bury(entry);
  keepRevisions(entry);
  const KeyRange range = subtreeRange(entry.lower());
  database_.execute("DELETE FROM links WHERE entry=?1", entry.id());
  if (entry.isFolder()) {
    database_.execute("DELETE FROM entries WHERE tree=?1 AND path_lower>?2 AND path_lower<?3", tree_.number(),
                      range.first, range.end);
  }
  database_.execute("DELETE FROM entries WHERE id=?1", entry.id());
  forgetOldDeletedFiles();
}

void TreeEditor::move(const Entry& entry, const NormalPath& to, const Folder& parent) {
  const NormalPath target = childOf(parent, to);
  const std::vector<std::int64_t> ids = tree_.subtreeIds(entry);
  bury(entry);
  for (const std::int64_t id : ids) {
    const auto item = tree_.byId(id);
    requireInvariant(item.has_value(), "an item of a subtree must exist while it is moved");
    const std::string lower = target.lower + item->lower().substr(entry.lower().size());
    const std::string display = target.display + item->display().substr(entry.display().size());
    database_.execute("DELETE FROM tombstones WHERE tree=?1 AND path_lower=?2", tree_.number(), lower);
    database_.execute("UPDATE entries SET path_lower=?2, path_display=?3, seq=?4 WHERE id=?1", id, lower,
                      display, writer_.nextSeq());
  }
  database_.execute("UPDATE entries SET parent=?2 WHERE id=?1", entry.id(), parent.id);
}

std::int64_t TreeEditor::copy(const Entry& entry, const NormalPath& to, const Folder& parent,
                              std::int64_t now) {
  std::unordered_map<std::int64_t, Folder> copies;
  std::int64_t top = 0;
  for (const std::int64_t id : tree_.subtreeIds(entry)) {
    const auto item = tree_.byId(id);
    requireInvariant(item.has_value(), "an item of a subtree must exist while it is copied");
    const bool isTop = id == entry.id();
    const NormalPath path = isTop ? to : pathOf(*item);
    const Folder& into = isTop ? parent : copies.at(item->parent());
    if (item->isFolder()) {
      const Folder made{addFolder(path, into), childOf(into, path)};
      copies.emplace(id, made);
      if (isTop) top = made.id;
    } else {
      const std::int64_t made =
          addFile(path, into, {item->content(), item->sizeBytes(), item->clientModified(), now});
      if (isTop) top = made;
    }
  }
  return top;
}

}  // namespace kzv::standin
