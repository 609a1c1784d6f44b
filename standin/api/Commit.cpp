#include "standin/api/Commit.h"

#include <boost/json.hpp>

#include "standin/faults/CommitGate.h"

namespace kzv::standin {
namespace {

bool isRev(std::string_view text) {
  return text.size() >= 9 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

void readMode(const ArgReader& reader, CommitArg& arg) {
  const std::string tag = reader.tag("mode", {"add", "overwrite", "update"}, "add");
  if (tag == "overwrite") arg.mode = WriteMode::overwrite;
  if (tag != "update") return;
  arg.mode = WriteMode::update;
  const auto mode = reader.raw("mode");
  if (!mode->is_object()) reader.fail("mode", "update needs a revision");
  arg.rev = reader.object("mode")->requiredString("update");
  if (!isRev(arg.rev)) reader.fail("mode", "update: '" + arg.rev + "' did not match pattern '[0-9a-f]{9,}'");
}

std::string conflictedCopySuffix(int number) {
  return number == 1 ? " (conflicted copy)" : " (conflicted copy " + std::to_string(number - 1) + ")";
}

bool mayReplace(const CommitArg& arg, const Entry& existing, std::int64_t tree) {
  if (existing.isFolder()) return false;
  if (arg.mode == WriteMode::overwrite) return true;
  return arg.mode == WriteMode::update && revText(existing.rev(), tree) == arg.rev;
}

// A file that already has the same bytes is not written again; with strict_conflict it is a conflict, unless
// overwritten.
bool isAlreadyThere(const CommitArg& arg, const Entry& existing, const PendingContent& content) {
  if (existing.isFolder() || existing.hash() != content.hash) return false;
  return !arg.strictConflict || arg.mode == WriteMode::overwrite;
}

void checkQuota(Database& database, std::int64_t tree, std::int64_t growth) {
  const Space space = Accounts::space(database, tree);
  if (growth > 0 && space.usedBytes + growth > space.quotaBytes) throw WriteRefused({"insufficient_space"});
}

}  // namespace

CommitArg decodeCommitArg(const ArgReader& reader) {
  CommitArg arg;
  arg.path = reader.path("path", PathForm::writeOrId);
  readMode(reader, arg);
  arg.autorename = reader.boolean("autorename", false);
  arg.clientModified = reader.optionalTime("client_modified");
  reader.boolean("mute", false);
  arg.strictConflict = reader.boolean("strict_conflict", false);
  reader.ignore({"property_groups"});
  return arg;
}

std::string numberSuffix(int number) { return " (" + std::to_string(number) + ")"; }

Target resolveTarget(const Call& call, const Tree& tree, const std::string& text) {
  if (text.compare(0, 3, "id:") == 0) {
    try {
      Located located = locate(call, tree, text, "path");
      return {located.root, located.path};
    } catch (const ApiError&) {
      // An unknown id has no path to write to.
      throw WriteRefused({"malformed_path"});
    }
  }
  NormalPath checked;
  std::string relative = text;
  if (text.compare(0, 3, "ns:") == 0) relative = text.substr(std::min(text.find('/'), text.size()));
  switch (normalisePath(relative, call.state.pathOptions(), checked)) {
    case PathVerdict::malformed:
      throw WriteRefused({"malformed_path"});
    case PathVerdict::disallowedName:
      throw WriteRefused({"disallowed_name"});
    case PathVerdict::ok:
      break;
  }
  try {
    Located located = locate(call, tree, text, "path");
    return {located.root, located.path};
  } catch (const ApiError&) {
    throw WriteRefused({"no_write_permission"});
  }
}

Folder parentFolder(TreeEditor& editor, const NormalPath& path) {
  auto parent = editor.ensureFolder(path.parent());
  if (!parent) throw WriteRefused({"conflict", "file_ancestor"});
  return std::move(*parent);
}

NormalPath freePath(const Tree& tree, const NormalPath& path, bool autorename, bool isFolder,
                    const std::function<std::string(int)>& suffix) {
  const auto existing = tree.find(path.lower);
  if (!existing && !path.isRoot()) return path;
  if (!autorename || path.isRoot()) {
    throw WriteRefused({"conflict", !existing || existing->isFolder() ? "folder" : "file"});
  }
  for (int number = 1;; ++number) {
    const std::string name = withSuffix(path.name(), suffix(number), isFolder);
    NormalPath candidate{std::string(parentOf(path.display)) + "/" + name,
                         std::string(parentOf(path.lower)) + "/" + lowerCased(name)};
    if (!tree.find(candidate.lower)) return candidate;
  }
}

std::string commitFile(Call& call, const CommitArg& arg, const PendingContent& content) {
  const CommitGate::Pass pass(call.state, call.root.tree, std::nullopt);
  Store::Writer writer(call.state.store);
  TreeEditor editor(writer, call.root.tree);
  const Target target = resolveTarget(call, editor.tree(), arg.path);
  const ItemWriter items(call.state, target.root);
  const auto existing = editor.tree().find(target.path.lower);
  if (existing && isAlreadyThere(arg, *existing, content)) return items.json(*existing, false);

  const auto size = static_cast<std::int64_t>(content.sizeBytes);
  const std::int64_t now = call.state.clock.now();
  FileContent file{0, size, arg.clientModified.value_or(now), now};
  if (existing && mayReplace(arg, *existing, call.root.tree)) {
    checkQuota(writer.database(), call.root.tree, size - existing->sizeBytes());
    file.content = content.store(writer);
    editor.replaceFile(*existing, file);
  } else {
    const bool isUpdate = arg.mode == WriteMode::update;
    NormalPath path = target.path;
    if (!existing && isUpdate && arg.strictConflict) {
      // The file to be updated was deleted.
      if (!arg.autorename) throw WriteRefused({"conflict", "file"});
      const std::string name = withSuffix(path.name(), conflictedCopySuffix(1), false);
      path = {std::string(parentOf(path.display)) + "/" + name,
              std::string(parentOf(path.lower)) + "/" + lowerCased(name)};
    }
    // A folder in the way of an update is not a conflicting revision: the file gets a number, as in the other
    // modes.
    const bool isConflictedCopy = isUpdate && existing && !existing->isFolder();
    path = freePath(editor.tree(), path, arg.autorename, false,
                    isConflictedCopy ? conflictedCopySuffix : numberSuffix);
    checkQuota(writer.database(), call.root.tree, size);
    const Folder parent = parentFolder(editor, path);
    file.content = content.store(writer);
    editor.addFile(path, parent, file);
    const std::string stored = parent.path.lower + "/" + std::string(nameOf(path.lower));
    std::string made = items.json(*editor.tree().find(stored), false);
    writer.commit();
    return made;
  }
  std::string made = items.json(*editor.tree().find(target.path.lower), false);
  writer.commit();
  return made;
}

}  // namespace kzv::standin
