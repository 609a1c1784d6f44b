#include "standin/api/ApiError.h"
#include "standin/api/Commit.h"
#include "standin/api/Items.h"
#include "standin/api/Routes.h"
#include "standin/faults/CommitGate.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kMaxRelocatedItems = 10000;

Route route(std::function<Endpoint(const ArgReader&)> decode) {
  Route made;
  made.scope = "files.content.write";
  made.decode = std::move(decode);
  return made;
}

// A WriteError below `tag`: {"to", "conflict", "file"}.
[[noreturn]] void failBelow(std::string_view tag, const WriteRefused& refused) {
  Tags tags{tag};
  tags.insert(tags.end(), refused.tags().begin(), refused.tags().end());
  failEndpoint(tags);
}

std::string metadataJson(const std::string& item) {
  JsonWriter json;
  json.beginObject().key("metadata").raw(item).endObject();
  return json.take();
}

// --- create_folder_v2

void createFolder(Call& call, const std::string& text, bool autorename) {
  const CommitGate::Pass pass(call.state, call.root.tree, Tags{"path"});
  Store::Writer writer(call.state.store);
  TreeEditor editor(writer, call.root.tree);
  try {
    const Target target = resolveTarget(call, editor.tree(), text);
    const NormalPath path = freePath(editor.tree(), target.path, autorename, true, numberSuffix);
    const Folder parent = parentFolder(editor, path);
    const auto made = editor.tree().byId(editor.addFolder(path, parent));
    call.reply(metadataJson(ItemWriter(call.state, target.root).json(*made, false)));
  } catch (const WriteRefused& refused) {
    failBelow("path", refused);
  }
  writer.commit();
}

Endpoint decodeCreateFolder(const ArgReader& reader) {
  const std::string path = reader.path("path", PathForm::write);
  const bool autorename = reader.boolean("autorename", false);
  reader.done();
  return [=](Call& call) { createFolder(call, path, autorename); };
}

// --- delete_v2

void deleteItem(Call& call, const std::string& text, const std::string& parentRev) {
  const CommitGate::Pass pass(call.state, call.root.tree, Tags{});
  Store::Writer writer(call.state.store);
  TreeEditor editor(writer, call.root.tree);
  const Located located = locate(call, editor.tree(), text, "path_lookup");
  if (located.path.lower.size() <= located.root.base.lower.size())
    failEndpoint({"path_write", "operation_suppressed"});
  if (!located.entry) failEndpoint({"path_lookup", "not_found"});
  const Entry& entry = *located.entry;
  if (!parentRev.empty()) {
    if (entry.isFolder()) failEndpoint({"path_lookup", "not_file"});
    if (revText(entry.rev(), call.root.tree) != parentRev) failEndpoint({"path_write", "conflict", "file"});
  }
  const std::string was = ItemWriter(call.state, located.root).json(entry, true);
  editor.remove(entry);
  writer.commit();
  call.reply(metadataJson(was));
}

Endpoint decodeDelete(const ArgReader& reader) {
  const std::string path = reader.path("path", PathForm::writeOrId);
  const std::string parentRev = reader.optionalString("parent_rev").value_or("");
  if (!parentRev.empty() && !matchesPathForm("rev:" + parentRev, PathForm::read)) {
    reader.fail("parent_rev", "'" + parentRev + "' did not match pattern '[0-9a-f]{9,}'");
  }
  reader.done();
  return [=](Call& call) { deleteItem(call, path, parentRev); };
}

// --- move_v2, copy_v2

struct RelocationArg {
  std::string from;
  std::string to;
  bool autorename = false;
  bool isCopy = false;
};

Entry relocationSource(const Call& call, const Tree& tree, const RelocationArg& arg) {
  const Located located = locate(call, tree, arg.from, "from_lookup");
  if (located.path.lower.size() <= located.root.base.lower.size())
    failEndpoint({"from_write", "operation_suppressed"});
  if (!located.entry) failEndpoint({"from_lookup", "not_found"});
  return *located.entry;
}

void checkRelocation(const Tree& tree, const Entry& source, const NormalPath& to, bool isCopy) {
  if (isBelow(to.lower, source.lower())) {
    failEndpoint({isCopy ? "duplicated_or_nested_paths" : "cant_move_folder_into_itself"});
  }
  if (tree.countSubtree(source, kMaxRelocatedItems + 1) > kMaxRelocatedItems)
    failEndpoint({"too_many_files"});
  if (!isCopy) return;
  const Space space = Accounts::space(tree.database(), tree.number());
  const std::int64_t growth = tree.subtreeBytes(source);
  if (growth > 0 && space.usedBytes + growth > space.quotaBytes) failEndpoint({"insufficient_quota"});
}

void relocate(Call& call, const RelocationArg& arg) {
  const CommitGate::Pass pass(call.state, call.root.tree, Tags{"to"});
  Store::Writer writer(call.state.store);
  TreeEditor editor(writer, call.root.tree);
  const Entry source = relocationSource(call, editor.tree(), arg);
  try {
    const Target target = resolveTarget(call, editor.tree(), arg.to);
    const ItemWriter items(call.state, target.root);
    if (target.path.lower == source.lower()) {
      // Renaming to another case succeeds without a change, as at the service; clients use a temporary name.
      const bool otherCase = target.path.name() != nameOf(source.display());
      if (arg.isCopy || !otherCase) failEndpoint({"duplicated_or_nested_paths"});
      call.reply(metadataJson(items.json(source, true)));
      return;
    }
    checkRelocation(editor.tree(), source, target.path, arg.isCopy);
    const NormalPath path =
        freePath(editor.tree(), target.path, arg.autorename, source.isFolder(), numberSuffix);
    const Folder parent = parentFolder(editor, path);
    std::int64_t id = source.id();
    if (arg.isCopy) {
      id = editor.copy(source, path, parent, call.state.clock.now());
    } else {
      editor.move(source, path, parent);
    }
    call.reply(metadataJson(items.json(*editor.tree().byId(id), true)));
  } catch (const WriteRefused& refused) {
    failBelow("to", refused);
  }
  writer.commit();
}

Endpoint decodeRelocation(const ArgReader& reader, bool isCopy) {
  RelocationArg arg;
  arg.from = reader.path("from_path", PathForm::writeOrId);
  arg.to = reader.path("to_path", PathForm::writeOrId);
  arg.autorename = reader.boolean("autorename", false);
  arg.isCopy = isCopy;
  reader.boolean("allow_shared_folder", false);
  reader.boolean("allow_ownership_transfer", false);
  reader.done();
  return [arg](Call& call) { relocate(call, arg); };
}

}  // namespace

void addFilesWriteRoutes(RouteTable& table) {
  table.api["files/create_folder_v2"] = route(decodeCreateFolder);
  table.api["files/delete_v2"] = route(decodeDelete);
  table.api["files/move_v2"] = route([](const ArgReader& reader) { return decodeRelocation(reader, false); });
  table.api["files/copy_v2"] = route([](const ArgReader& reader) { return decodeRelocation(reader, true); });
}

}  // namespace kzv::standin
