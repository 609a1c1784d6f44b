#include <charconv>

#include "standin/Encoding.h"
#include "standin/api/ApiError.h"
#include "standin/api/Items.h"
#include "standin/api/Routes.h"
#include "standin/store/Cursor.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kLinksPage = 100;
constexpr std::string_view kCursorKind = "LL";

/// A shared link to one item.
struct Link {
  std::int64_t id = 0;
  Account account;
  std::int64_t entry = 0;
  /// The secret part of the URL.
  std::string token;
  /// "public", "team_only" or "no_one".
  std::string audience;
  std::optional<std::int64_t> expires;
  bool allowDownload = true;
};

Link linkFromRow(const Query& row, const Account& account) {
  Link link{row.integer(0),           account, row.integer(1),     std::string(row.text(2)),
            std::string(row.text(3)), {},      row.integer(5) != 0};
  if (!row.isNull(4)) link.expires = row.integer(4);
  return link;
}

std::string linkUrl(const Link& link, const Entry& entry) {
  const std::string key = link.token.substr(0, 21);
  return "https://www.dropbox.com/scl/" + std::string(entry.isFolder() ? "fo/" : "fi/") + key + "/" +
         urlEncode(nameOf(entry.display())) + "?rlkey=" + link.token.substr(21) + "&dl=0";
}

// SharedLinkMetadata.
std::string linkJson(const ServiceState& state, const Link& link, const Entry& entry) {
  const PathRoot root{link.account.tree, link.account.homeNamespace, link.account.home};
  JsonWriter json;
  json.beginObject().field(".tag", entry.isFolder() ? "folder" : "file");
  json.field("url", std::string_view(linkUrl(link, entry)));
  json.field("id", std::string_view(state.store.itemId(entry.id()))).field("name", nameOf(entry.display()));
  if (link.expires) json.field("expires", std::string_view(isoTime(*link.expires)));
  json.field("path_lower", root.fromTree(entry.lower())).key("link_permissions").beginObject();
  json.key("resolved_visibility").raw(nestedTags({link.audience}));
  json.key("requested_visibility").raw(nestedTags({link.audience}));
  json.field("can_revoke", true).key("visibility_policies").beginArray().endArray();
  json.field("can_set_expiry", false)
      .field("can_remove_expiry", false)
      .field("allow_download", link.allowDownload);
  json.field("can_allow_download", true).field("can_disallow_download", false).field("allow_comments", true);
  json.field("team_restricts_comments", false).endObject();
  if (!entry.isFolder()) {
    json.field("client_modified", std::string_view(isoTime(entry.clientModified())));
    json.field("server_modified", std::string_view(isoTime(entry.serverModified())));
    json.field("rev", std::string_view(revText(entry.rev(), link.account.tree)))
        .field("size", entry.sizeBytes());
  }
  json.endObject();
  return json.take();
}

std::optional<Link> findLink(Database& database, const Account& account, std::int64_t entry) {
  auto row = database.query(
      "SELECT id, entry, token, audience, expires, allow_download FROM links WHERE account=?1 AND entry=?2",
      account.id, entry);
  if (!row.step()) return std::nullopt;
  return linkFromRow(row, account);
}

// Links of the account with a number above `afterId`, in order of creation.
std::vector<Link> linksAfter(Database& database, const Account& account, std::int64_t afterId,
                             std::size_t limit) {
  auto row = database.query(
      "SELECT id, entry, token, audience, expires, allow_download FROM links WHERE account=?1 AND id>?2 "
      "ORDER BY id"
      " LIMIT ?3",
      account.id, afterId, static_cast<std::int64_t>(limit));
  std::vector<Link> links;
  while (row.step()) links.push_back(linkFromRow(row, account));
  return links;
}

// --- create_shared_link_with_settings

struct LinkSettings {
  std::string audience = "public";
  std::optional<std::int64_t> expires;
  bool allowDownload = true;
  bool needsPassword = false;
  bool hasPassword = false;
  /// Settings other than the account's defaults were requested.
  bool isCustom = false;
};

LinkSettings decodeSettings(const ArgReader& reader) {
  LinkSettings settings;
  const auto given = reader.object("settings");
  if (!given) return settings;
  const std::string visibility =
      given->tag("requested_visibility", {"public", "team_only", "password"}, "public");
  const std::string audience =
      given->tag("audience", {"public", "team", "no_one", "password", "members"}, visibility);
  given->tag("access", {"viewer", "editor", "max", "default"}, "default");
  settings.audience = audience == "team" ? "team_only" : audience;
  settings.expires = given->optionalTime("expires");
  settings.needsPassword = (given->has("require_password") && given->boolean("require_password", false)) ||
                           visibility == "password" || audience == "password";
  settings.hasPassword = given->optionalString("link_password").has_value();
  if (given->has("allow_download")) settings.allowDownload = given->boolean("allow_download", true);
  settings.isCustom = settings.audience != "public" || settings.expires || settings.needsPassword ||
                      settings.hasPassword || !settings.allowDownload;
  given->done();
  return settings;
}

void checkSettings(const Call& call, const LinkSettings& settings) {
  if (settings.needsPassword != settings.hasPassword) failEndpoint({"settings_error", "invalid_settings"});
  if (settings.expires && *settings.expires <= call.state.clock.now()) {
    failEndpoint({"settings_error", "invalid_settings"});
  }
  // Passwords, expiry and restricted audiences are not available to basic accounts.
  if (settings.isCustom && !call.account->isTeam) failEndpoint({"settings_error", "not_authorized"});
}

[[noreturn]] void failAlreadyShared(const Call& call, const Link& link, const Entry& entry, bool isCustom) {
  JsonWriter error;
  error.beginObject().field(".tag", "shared_link_already_exists");
  Tags summary{"shared_link_already_exists"};
  if (!isCustom) {
    summary.emplace_back("metadata");
    error.key("shared_link_already_exists").beginObject().field(".tag", "metadata");
    error.key("metadata").raw(linkJson(call.state, link, entry)).endObject();
  }
  error.endObject();
  failEndpoint(summary, error.text());
}

void createLink(Call& call, const std::string& path, const LinkSettings& settings) {
  Store::Writer writer(call.state.store);
  Database& database = writer.database();
  const Tree tree(database, call.root.tree);
  const Entry entry = locateExisting(call, tree, path, "path");
  checkSettings(call, settings);
  if (const auto existing = findLink(database, *call.account, entry.id())) {
    failAlreadyShared(call, *existing, entry, settings.isCustom);
  }
  Link link{0,
            *call.account,
            entry.id(),
            base64UrlEncode(randomBytes(34)),
            settings.audience,
            settings.expires,
            settings.allowDownload};
  {
    auto insert = database.query(
        "INSERT INTO links(account, entry, token, audience, expires, allow_download, custom)"
        " VALUES(?1, ?2, ?3, ?4, nullif(?5, 0), ?6, ?7)",
        link.account.id, link.entry, link.token, link.audience, link.expires.value_or(0),
        static_cast<std::int64_t>(link.allowDownload), static_cast<std::int64_t>(settings.isCustom));
    insert.step();
  }
  writer.commit();
  call.reply(linkJson(call.state, link, entry));
}

Endpoint decodeCreateLink(const ArgReader& reader) {
  const std::string path = reader.path("path", PathForm::read);
  const LinkSettings settings = decodeSettings(reader);
  reader.done();
  return [=](Call& call) { createLink(call, path, settings); };
}

// --- list_shared_links

void listLinksOfPath(Call& call, const std::string& path, bool directOnly) {
  Store::Reader lease(call.state.store);
  const Tree tree(lease.database(), call.root.tree);
  std::optional<Entry> entry = locateExisting(call, tree, path, "path");
  JsonWriter json;
  json.beginObject().key("links").beginArray();
  while (entry) {
    if (const auto link = findLink(lease.database(), *call.account, entry->id())) {
      json.raw(linkJson(call.state, *link, *entry));
    }
    if (directOnly) break;
    entry = tree.byId(entry->parent());
  }
  json.endArray().field("has_more", false).endObject();
  call.reply(json.take());
}

void listAllLinks(Call& call, std::int64_t afterId) {
  Store::Reader lease(call.state.store);
  const Tree tree(lease.database(), call.root.tree);
  const std::int64_t ceiling = call.state.settings.pageSize;
  const std::size_t limit = ceiling > 0 ? static_cast<std::size_t>(ceiling) : kLinksPage;
  const auto links = linksAfter(lease.database(), *call.account, afterId, limit + 1);
  JsonWriter json;
  json.beginObject().key("links").beginArray();
  std::int64_t last = afterId;
  for (std::size_t i = 0; i < std::min(limit, links.size()); ++i) {
    last = links[i].id;
    if (const auto entry = tree.byId(links[i].entry)) json.raw(linkJson(call.state, links[i], *entry));
  }
  json.endArray().field("has_more", links.size() > limit);
  if (links.size() > limit) {
    const std::string position = std::to_string(call.account->id) + " " + std::to_string(last);
    json.field("cursor", std::string_view(seal(kCursorKind, position, call.state.store.secret())));
  }
  json.endObject();
  call.reply(json.take());
}

std::int64_t positionFromCursor(const Call& call, const std::string& cursor) {
  std::string position;
  const std::string prefix = std::to_string(call.account->id) + " ";
  if (!unseal(kCursorKind, cursor, call.state.store.secret(), position) ||
      position.compare(0, prefix.size(), prefix) != 0) {
    failEndpoint({"reset"});
  }
  std::int64_t after = 0;
  std::from_chars(position.data() + prefix.size(), position.data() + position.size(), after);
  return after;
}

Endpoint decodeListLinks(const ArgReader& reader) {
  const auto path = reader.optionalPath("path", PathForm::read);
  const auto cursor = reader.optionalString("cursor");
  const bool directOnly = reader.has("direct_only") && reader.boolean("direct_only", false);
  reader.done();
  return [=](Call& call) {
    if (path) {
      listLinksOfPath(call, *path, directOnly);
    } else {
      listAllLinks(call, cursor ? positionFromCursor(call, *cursor) : 0);
    }
  };
}

Route route(std::string scope, std::function<Endpoint(const ArgReader&)> decode) {
  Route made;
  made.scope = std::move(scope);
  made.decode = std::move(decode);
  return made;
}

}  // namespace

void addSharingRoutes(RouteTable& table) {
  table.api["sharing/create_shared_link_with_settings"] = route("sharing.write", decodeCreateLink);
  table.api["sharing/list_shared_links"] = route("sharing.read", decodeListLinks);
}

}  // namespace kzv::standin
