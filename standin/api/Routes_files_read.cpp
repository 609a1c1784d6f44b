#include <algorithm>
#include <random>

#include "standin/api/ApiError.h"
#include "standin/api/Items.h"
#include "standin/api/Routes.h"
#include "standin/store/Cursor.h"

namespace kzv::standin {
namespace {

constexpr std::int64_t kDefaultPage = 500;
constexpr std::int64_t kMaxPage = 2000;
constexpr std::int64_t kMaxLongpollJitterMs = 90000;

Route route(std::string scope, std::function<Endpoint(const ArgReader&)> decode) {
  Route made;
  made.scope = std::move(scope);
  made.decode = std::move(decode);
  return made;
}

// --- get_metadata

struct MetadataArg {
  std::string path;
  bool includeDeleted = false;
};

void getMetadata(Call& call, const MetadataArg& arg) {
  Store::Reader reader(call.state.store);
  const Tree tree(reader.database(), call.root.tree);
  const Located located = locate(call, tree, arg.path, "path");
  const ItemWriter items(call.state, located.root);
  if (located.entry) {
    call.reply(items.json(*located.entry, true));
    return;
  }
  const auto was = arg.includeDeleted ? tree.tombstone(located.path.lower) : std::nullopt;
  if (!was) failEndpoint({"path", "not_found"});
  JsonWriter json;
  items.writeDeleted(json, {located.path.lower, *was});
  call.reply(json.take());
}

Endpoint decodeGetMetadata(const ArgReader& reader) {
  MetadataArg arg;
  arg.path = reader.path("path", PathForm::read);
  if (arg.path == "/") reader.fail("path", "The root folder is unsupported.");
  arg.includeDeleted = reader.boolean("include_deleted", false);
  reader.boolean("include_media_info", false);
  reader.boolean("include_has_explicit_shared_members", false);
  reader.ignore({"include_property_groups"});
  reader.done();
  return [arg](Call& call) { getMetadata(call, arg); };
}

// --- list_folder and its family

struct ListArg {
  std::string path;
  bool recursive = false;
  bool includeDeleted = false;
  std::int64_t limit = 0;
};

ListArg decodeListArg(const ArgReader& reader) {
  ListArg arg;
  arg.path = reader.path("path", PathForm::rootOrId);
  if (arg.path == "/")
    reader.fail("path", "Specify the root folder as an empty string rather than as \"/\".");
  arg.recursive = reader.boolean("recursive", false);
  arg.includeDeleted = reader.boolean("include_deleted", false);
  arg.limit = static_cast<std::int64_t>(reader.optionalUnsigned("limit", 1, kMaxPage).value_or(0));
  for (const auto* flag :
       {"include_media_info", "include_has_explicit_shared_members", "include_mounted_folders",
        "include_non_downloadable_files", "include_restorable_info"}) {
    reader.boolean(flag, false);
  }
  if (reader.has("shared_link"))
    reader.fail("shared_link", "listing a shared link is not supported by this stand-in");
  reader.ignore({"shared_link", "include_property_groups"});
  reader.done();
  return arg;
}

std::size_t pageLimit(const Call& call, const Cursor& cursor) {
  std::int64_t limit = cursor.limit == 0 ? kDefaultPage : cursor.limit;
  if (const std::int64_t ceiling = call.state.settings.pageSize; ceiling > 0)
    limit = std::min(limit, ceiling);
  return static_cast<std::size_t>(limit);
}

// The position before the first entry of the folder.
Cursor startCursor(const Call& call, const Tree& tree, const ListArg& arg) {
  Cursor cursor;
  const Located located = locate(call, tree, arg.path, "path");
  const bool isTreeRoot = located.path.isRoot();
  if (!isTreeRoot && !located.entry) failEndpoint({"path", "not_found"});
  if (located.entry && !located.entry->isFolder()) failEndpoint({"path", "not_folder"});
  cursor.account = call.account->id;
  cursor.namespaceId = located.root.namespaceId;
  cursor.epoch = call.state.settings.cursorEpoch;
  cursor.recursive = arg.recursive;
  cursor.includeDeleted = arg.includeDeleted;
  cursor.limit = arg.limit;
  cursor.folderId = isTreeRoot ? tree.rootId() : located.entry->id();
  cursor.folderLower = located.path.lower;
  cursor.seq = tree.latestSeq();
  return cursor;
}

Scope scopeOf(const Cursor& cursor) { return {cursor.folderId, cursor.folderLower, cursor.recursive}; }

// Advances the cursor over one page of live entries, deleted ones, or changes. @return has_more.
bool advance(const Tree& tree, Cursor& cursor, const EntrySink& sink, std::size_t limit) {
  ListPosition position{cursor.afterId, cursor.afterPath};
  const Scope scope = scopeOf(cursor);
  if (cursor.phase == CursorPhase::changes) {
    const FeedPage page = tree.changes(scope, cursor.seq, limit, sink);
    if (page.folderReplaced) failEndpoint({"reset"});
    cursor.seq = page.position;
    return page.hasMore;
  }
  const bool isLive = cursor.phase == CursorPhase::listing;
  const bool more =
      isLive ? tree.list(scope, position, limit, sink) : tree.listTombstones(scope, position, limit, sink);
  cursor.afterId = position.afterId;
  cursor.afterPath = position.afterPath;
  if (more) return true;
  cursor.afterId = 0;
  cursor.afterPath.clear();
  cursor.phase = isLive && cursor.includeDeleted ? CursorPhase::deletedListing : CursorPhase::changes;
  if (cursor.phase == CursorPhase::deletedListing) return true;
  // Changes made during the listing follow on later pages.
  const FeedPage rest = tree.changes(scope, cursor.seq, 0, {});
  if (rest.folderReplaced) failEndpoint({"reset"});
  return rest.hasMore;
}

void replyPage(Call& call, const Tree& tree, Cursor cursor, const PathRoot& root) {
  const ItemWriter items(call.state, root);
  const std::size_t limit = pageLimit(call, cursor);
  JsonWriter json;
  json.reserve(std::min<std::size_t>(limit, 2000) * 420);
  json.beginObject().key("entries").beginArray();
  const EntrySink sink{[&](const EntryView& entry) {
                         if (!items.isRoot(entry)) items.write(json, entry, true);
                       },
                       [&](const TombstoneView& item) { items.writeDeleted(json, item); }};
  const bool hasMore = advance(tree, cursor, sink, limit);
  json.endArray().field("cursor", std::string_view(encodeCursor(cursor, call.state.store.secret())));
  json.field("has_more", hasMore).endObject();
  call.reply(json.take());
}

PathRoot rootOfNamespace(const Account& account, std::int64_t number) {
  if (number == account.rootNamespace && number != account.homeNamespace) return {account.tree, number, {}};
  return {account.tree, account.homeNamespace, account.home};
}

Endpoint decodeListFolder(const ArgReader& reader) {
  return [arg = decodeListArg(reader)](Call& call) {
    Store::Reader lease(call.state.store);
    const Tree tree(lease.database(), call.root.tree);
    Cursor cursor = startCursor(call, tree, arg);
    cursor.phase = CursorPhase::listing;
    const PathRoot root = rootOfNamespace(*call.account, cursor.namespaceId);
    replyPage(call, tree, cursor, root);
  };
}

Endpoint decodeLatestCursor(const ArgReader& reader) {
  return [arg = decodeListArg(reader)](Call& call) {
    Store::Reader lease(call.state.store);
    const Cursor cursor = startCursor(call, Tree(lease.database(), call.root.tree), arg);
    JsonWriter json;
    json.beginObject();
    json.field("cursor", std::string_view(encodeCursor(cursor, call.state.store.secret()))).endObject();
    call.reply(json.take());
  };
}

std::string cursorText(const ArgReader& reader) {
  std::string text = reader.requiredString("cursor");
  if (text.empty()) reader.fail("cursor", "must be at least 1 characters, got 0");
  return text;
}

// Malformed text is answered with 400; an old cursor, or one whose folder was replaced, with `reset`.
Cursor cursorFrom(const Call& call, const std::string& text) {
  Cursor cursor;
  if (!decodeCursor(text, call.state.store.secret(), cursor))
    throw BadArgument("request body: cursor: invalid cursor");
  if (cursor.epoch != call.state.settings.cursorEpoch) failEndpoint({"reset"});
  return cursor;
}

void checkFolder(const Tree& tree, const Cursor& cursor) {
  if (cursor.folderLower.empty()) return;
  const auto folder = tree.find(cursor.folderLower);
  if (!folder) failEndpoint({"path", "not_found"});
  if (!folder->isFolder()) failEndpoint({"path", "not_folder"});
  if (folder->id() != cursor.folderId) failEndpoint({"reset"});
}

Endpoint decodeContinue(const ArgReader& reader) {
  const std::string text = cursorText(reader);
  reader.done();
  return [text](Call& call) {
    const Cursor cursor = cursorFrom(call, text);
    if (cursor.account != call.account->id)
      throw BadArgument("request body: cursor: belongs to another account");
    const PathRoot root = rootOfNamespace(*call.account, cursor.namespaceId);
    Store::Reader lease(call.state.store);
    const Tree tree(lease.database(), root.tree);
    // Moving a home into a team root changes the meaning of old cursors' paths.
    if (!root.base.isRoot() && cursor.folderLower.compare(0, root.base.lower.size(), root.base.lower) != 0) {
      failEndpoint({"reset"});
    }
    checkFolder(tree, cursor);
    replyPage(call, tree, cursor, root);
  };
}

// --- longpoll

bool hasChanges(const Call& call, const Cursor& cursor) {
  if (cursor.phase != CursorPhase::changes) return true;
  const auto account = call.state.accounts.byId(cursor.account);
  if (!account) return true;
  Store::Reader lease(call.state.store);
  const Tree tree(lease.database(), account->tree);
  const FeedPage page = tree.changes(scopeOf(cursor), cursor.seq, 0, {});
  return page.hasMore || page.folderReplaced;
}

void longpoll(Call& call, const std::string& text, std::int64_t timeoutSeconds) {
  const Cursor cursor = cursorFrom(call, text);
  std::random_device random;
  const std::chrono::milliseconds jitter(
      std::uniform_int_distribution<std::int64_t>(0, kMaxLongpollJitterMs)(random));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds) + jitter;
  bool changed = false;
  for (;;) {
    // Read the number first, so that a commit in between ends the wait.
    const std::uint64_t seen = call.state.store.commits();
    changed = hasChanges(call, cursor);
    if (changed || std::chrono::steady_clock::now() >= deadline) break;
    if (!call.state.store.waitForCommit(seen, deadline)) break;
    cursorFrom(call, text);  // cursors may have been reset meanwhile
  }
  JsonWriter json;
  json.beginObject().field("changes", changed).endObject();
  call.reply(json.take());
}

Endpoint decodeLongpoll(const ArgReader& reader) {
  const std::string text = cursorText(reader);
  const auto timeout = static_cast<std::int64_t>(reader.optionalUnsigned("timeout", 30, 480).value_or(30));
  reader.done();
  return [text, timeout](Call& call) { longpoll(call, text, timeout); };
}

}  // namespace

void addFilesReadRoutes(RouteTable& table) {
  constexpr const char* scope = "files.metadata.read";
  table.api["files/get_metadata"] = route(scope, decodeGetMetadata);
  table.api["files/list_folder"] = route(scope, decodeListFolder);
  table.api["files/list_folder/continue"] = route(scope, decodeContinue);
  table.api["files/list_folder/get_latest_cursor"] = route(scope, decodeLatestCursor);
  Route longpollRoute = route("", decodeLongpoll);
  longpollRoute.auth = RouteAuth::none;
  table.api["files/list_folder/longpoll"] = std::move(longpollRoute);
}

}  // namespace kzv::standin
