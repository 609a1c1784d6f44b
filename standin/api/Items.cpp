#include "standin/api/Items.h"

#include <charconv>

#include "standin/Encoding.h"
#include "standin/api/ApiError.h"

namespace kzv::standin {
namespace {

// "ns:N/rel" -> N and "/rel".
std::int64_t splitNamespace(std::string_view text, std::string& rest) {
  const auto slash = std::min(text.find('/'), text.size());
  std::int64_t number = 0;
  std::from_chars(text.data() + 3, text.data() + slash, number);
  rest = text.substr(slash);
  return number;
}

NormalPath normalOrFail(const Call& call, std::string_view text, std::string_view tag) {
  NormalPath path;
  if (normalisePath(text, call.state.pathOptions(), path) == PathVerdict::malformed) {
    failEndpoint({tag, "malformed_path"});
  }
  return path;
}

bool isInside(const PathRoot& root, std::string_view lower) {
  return root.base.isRoot() || lower == root.base.lower || isBelow(lower, root.base.lower);
}

Located locateById(const Call& call, const Tree& tree, const std::string& text, std::string_view tag) {
  const auto slash = text.find('/');
  const auto item = tree.byId(call.state.store.itemFromId(text.substr(0, slash)));
  if (!item || !isInside(call.root, item->lower())) failEndpoint({tag, "not_found"});
  Located located{call.root, {item->display(), item->lower()}, item};
  if (slash == std::string::npos) return located;
  const NormalPath below = normalOrFail(call, text.substr(slash), tag);
  located.path = {item->display() + below.display, item->lower() + below.lower};
  located.entry = tree.find(located.path.lower);
  return located;
}

}  // namespace

ItemWriter::ItemWriter(const ServiceState& state, PathRoot root)
    : state_(state), root_(std::move(root)), lowerCaseParents_(state.settings.displayCaseQuirk) {}

std::string ItemWriter::shownDisplay(std::string_view lower, std::string_view display) const {
  if (!lowerCaseParents_) return std::string(root_.displayFromTree(display));
  return std::string(parentOf(root_.fromTree(lower))) + "/" + std::string(nameOf(display));
}

void ItemWriter::writeFields(JsonWriter& json, const EntryView& entry) const {
  json.field("name", nameOf(entry.display)).field("path_lower", root_.fromTree(entry.lower));
  if (lowerCaseParents_) {
    json.field("path_display", std::string_view(shownDisplay(entry.lower, entry.display)));
  } else {
    json.field("path_display", root_.displayFromTree(entry.display));
  }
  json.field("id", std::string_view(state_.store.itemId(entry.id)));
  if (entry.isFolder) return;
  json.field("client_modified", std::string_view(isoTime(entry.clientModified)));
  json.field("server_modified", std::string_view(isoTime(entry.serverModified)));
  json.field("rev", std::string_view(revText(entry.rev, root_.tree)));
  json.field("size", entry.sizeBytes).field("is_downloadable", true);
  json.field("content_hash", std::string_view(hexEncode(entry.hash)));
}

void ItemWriter::write(JsonWriter& json, const EntryView& entry, bool withTag) const {
  json.beginObject();
  if (withTag) json.field(".tag", entry.isFolder ? "folder" : "file");
  writeFields(json, entry);
  json.endObject();
}

void ItemWriter::writeDeleted(JsonWriter& json, const TombstoneView& item) const {
  json.beginObject().field(".tag", "deleted").field("name", nameOf(item.display));
  json.field("path_lower", root_.fromTree(item.lower));
  json.field("path_display", std::string_view(shownDisplay(item.lower, item.display))).endObject();
}

std::string ItemWriter::json(const Entry& entry, bool withTag) const {
  JsonWriter json;
  write(json, entry.view(), withTag);
  return json.take();
}

Located locate(const Call& call, const Tree& tree, const std::string& text, std::string_view tag) {
  if (text.compare(0, 3, "id:") == 0) return locateById(call, tree, text, tag);
  if (text.compare(0, 4, "rev:") == 0) {
    auto item = tree.byRev(revFromText(std::string_view(text).substr(4)));
    if (!item || !isInside(call.root, item->lower())) failEndpoint({tag, "not_found"});
    return {call.root, {item->display(), item->lower()}, item};
  }
  Located located{call.root, {}, {}};
  std::string relative = text;
  if (text.compare(0, 3, "ns:") == 0) {
    const std::int64_t number = splitNamespace(text, relative);
    const Account& account = *call.account;
    if (number == account.homeNamespace) {
      located.root = {account.tree, account.homeNamespace, account.home};
    } else if (number == account.rootNamespace) {
      located.root = {account.tree, account.rootNamespace, {}};
    } else {
      failEndpoint({tag, "not_found"});
    }
  }
  located.path = located.root.toTree(normalOrFail(call, relative, tag));
  located.entry = tree.find(located.path.lower);
  return located;
}

Entry locateExisting(const Call& call, const Tree& tree, const std::string& text, std::string_view tag) {
  Located located = locate(call, tree, text, tag);
  if (!located.entry || !tree.byId(located.entry->id())) failEndpoint({tag, "not_found"});
  return std::move(*located.entry);
}

}  // namespace kzv::standin
