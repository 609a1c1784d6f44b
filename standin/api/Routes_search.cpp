#include <algorithm>
#include <boost/json.hpp>
#include <map>

#include "standin/api/ApiError.h"
#include "standin/api/Items.h"
#include "standin/api/Routes.h"
#include "standin/store/Cursor.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kMaxMatches = 10000;
constexpr std::size_t kMaxQueryCharacters = 1000;
constexpr std::size_t kScanPage = 5000;
constexpr std::string_view kCursorKind = "SS";

struct SearchArg {
  std::string query;
  std::string path;
  std::size_t maxResults = 100;
  std::vector<std::string> extensions;
  std::vector<std::string> categories;
  /// Matches returned by earlier pages.
  std::size_t position = 0;
};

struct Match {
  Entry entry;
  bool beginsWithQuery = false;
};

std::string categoryOf(const EntryView& entry) {
  if (entry.isFolder) return "folder";
  static const std::map<std::string_view, const char*> byExtension{
      {"jpg", "image"},         {"jpeg", "image"},       {"png", "image"},       {"gif", "image"},
      {"bmp", "image"},         {"tif", "image"},        {"tiff", "image"},      {"webp", "image"},
      {"doc", "document"},      {"docx", "document"},    {"odt", "document"},    {"rtf", "document"},
      {"txt", "document"},      {"md", "document"},      {"pdf", "pdf"},         {"xls", "spreadsheet"},
      {"xlsx", "spreadsheet"},  {"ods", "spreadsheet"},  {"csv", "spreadsheet"}, {"ppt", "presentation"},
      {"pptx", "presentation"}, {"odp", "presentation"}, {"mp3", "audio"},       {"wav", "audio"},
      {"flac", "audio"},        {"ogg", "audio"},        {"mp4", "video"},       {"mov", "video"},
      {"avi", "video"},         {"mkv", "video"},        {"paper", "paper"}};
  const std::string_view name = nameOf(entry.lower);
  const auto dot = name.rfind('.');
  const auto found =
      dot == std::string_view::npos ? byExtension.end() : byExtension.find(name.substr(dot + 1));
  return found == byExtension.end() ? "others" : found->second;
}

bool hasExtension(const EntryView& entry, const std::vector<std::string>& extensions) {
  if (extensions.empty()) return true;
  const std::string_view name = nameOf(entry.lower);
  const auto dot = name.rfind('.');
  if (entry.isFolder || dot == std::string_view::npos) return false;
  return std::any_of(extensions.begin(), extensions.end(), [&](const std::string& wanted) {
    return lowerCased(wanted.substr(wanted.find_first_not_of('.') == 1 ? 1 : 0)) == name.substr(dot + 1);
  });
}

bool hasCategory(const EntryView& entry, const std::vector<std::string>& categories) {
  return categories.empty() ||
         std::find(categories.begin(), categories.end(), categoryOf(entry)) != categories.end();
}

// Every word of the query must occur in the name; contents are not searched.
bool nameMatches(std::string_view lowerName, const std::vector<std::string>& words) {
  return std::all_of(words.begin(), words.end(),
                     [&](const std::string& word) { return lowerName.find(word) != std::string_view::npos; });
}

std::vector<std::string> wordsOf(const std::string& query) {
  std::vector<std::string> words;
  const std::string lower = lowerCased(toNfc(query));
  for (std::size_t at = 0; at < lower.size();) {
    const auto end = std::min(lower.find(' ', at), lower.size());
    if (end > at) words.push_back(lower.substr(at, end - at));
    at = end + 1;
  }
  return words;
}

std::vector<Match> findMatches(const Tree& tree, const Scope& scope, const SearchArg& arg) {
  const std::vector<std::string> words = wordsOf(arg.query);
  std::vector<Match> matches;
  ListPosition position;
  const EntrySink sink{
      [&](const EntryView& entry) {
        const std::string_view name = nameOf(entry.lower);
        if (entry.id == scope.folderId || matches.size() >= kMaxMatches || !nameMatches(name, words)) return;
        if (!hasExtension(entry, arg.extensions) || !hasCategory(entry, arg.categories)) return;
        matches.push_back({Entry(entry), name.substr(0, words.front().size()) == words.front()});
      },
      {}};
  while (tree.list(scope, position, kScanPage, sink) && matches.size() < kMaxMatches) {
  }
  std::stable_sort(matches.begin(), matches.end(),
                   [](const Match& a, const Match& b) { return a.beginsWithQuery > b.beginsWithQuery; });
  return matches;
}

void writeStrings(JsonWriter& json, std::string_view key, const std::vector<std::string>& texts) {
  json.key(key).beginArray();
  for (const auto& text : texts) json.string(text);
  json.endArray();
}

// The cursor contains the query: the next page is found by searching again.
std::string searchCursor(const Call& call, const SearchArg& arg) {
  JsonWriter json;
  json.beginObject()
      .field("account", call.account->id)
      .field("query", arg.query)
      .key("options")
      .beginObject();
  json.field("path", arg.path).field("max_results", static_cast<std::int64_t>(arg.maxResults));
  writeStrings(json, "file_extensions", arg.extensions);
  writeStrings(json, "file_categories", arg.categories);
  json.endObject().field("position", static_cast<std::int64_t>(arg.position)).endObject();
  return seal(kCursorKind, json.text(), call.state.store.secret());
}

Scope searchScope(const Call& call, const Tree& tree, const SearchArg& arg) {
  if (arg.path.empty() && call.root.base.isRoot()) return {tree.rootId(), "", true};
  const Located located = locate(call, tree, arg.path, "path");
  if (located.path.isRoot()) return {tree.rootId(), "", true};
  if (!located.entry) failEndpoint({"path", "not_found"});
  if (!located.entry->isFolder()) failEndpoint({"path", "not_folder"});
  return {located.entry->id(), located.path.lower, true};
}

void search(Call& call, SearchArg arg) {
  if (wordsOf(arg.query).empty()) failEndpoint({"invalid_argument"});
  Store::Reader lease(call.state.store);
  const Tree tree(lease.database(), call.root.tree);
  const Scope scope = searchScope(call, tree, arg);
  const ItemWriter items(call.state, call.root);
  JsonWriter json;
  json.beginObject().key("matches").beginArray();
  const auto matches = findMatches(tree, scope, arg);
  const std::size_t end = std::min(matches.size(), arg.position + arg.maxResults);
  for (std::size_t i = arg.position; i < end; ++i) {
    json.beginObject().key("match_type").raw("{\".tag\":\"filename\"}").key("metadata").beginObject();
    json.field(".tag", "metadata").key("metadata");
    items.write(json, matches[i].entry.view(), true);
    json.endObject().endObject();
  }
  arg.position = std::max(arg.position, end);
  json.endArray().field("has_more", end < matches.size());
  if (end < matches.size()) json.field("cursor", std::string_view(searchCursor(call, arg)));
  json.endObject();
  call.reply(json.take());
}

std::vector<std::string> decodeCategories(const ArgReader& options) {
  std::vector<std::string> categories;
  const auto* list = options.raw("file_categories");
  if (!list || list->is_null()) return categories;
  const auto* items = list->if_array();
  if (!items) options.fail("file_categories", "expected list");
  for (const auto& item : *items) {
    const boost::json::object wrapped{{"category", item}};
    categories.push_back(ArgReader(wrapped, false, "file_categories.")
                             .tag("category",
                                  {"image", "document", "pdf", "spreadsheet", "presentation", "audio",
                                   "video", "folder", "paper", "others"},
                                  ""));
  }
  return categories;
}

SearchArg decodeSearchArg(const ArgReader& reader) {
  SearchArg arg;
  arg.query = reader.requiredString("query");
  const auto characters = std::count_if(arg.query.begin(), arg.query.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  });
  if (static_cast<std::size_t>(characters) > kMaxQueryCharacters)
    reader.fail("query", "must be at most 1000 characters");
  reader.ignore({"match_field_options", "include_highlights"});
  const auto options = reader.object("options");
  if (!options) return arg;
  arg.path = options->optionalPath("path", PathForm::rootOrId).value_or("");
  arg.maxResults = static_cast<std::size_t>(options->optionalUnsigned("max_results", 1, 1000).value_or(100));
  options->tag("order_by", {"relevance"}, "relevance");
  options->tag("file_status", {"active"}, "active");
  options->boolean("filename_only", false);
  arg.extensions = options->strings("file_extensions");
  arg.categories = decodeCategories(*options);
  options->ignore({"account_id"});
  options->done();
  return arg;
}

Endpoint decodeSearch(const ArgReader& reader) {
  const SearchArg arg = decodeSearchArg(reader);
  reader.done();
  return [arg](Call& call) { search(call, arg); };
}

Endpoint decodeSearchContinue(const ArgReader& reader) {
  const std::string cursor = reader.requiredString("cursor");
  reader.done();
  return [cursor](Call& call) {
    std::string payload;
    if (!unseal(kCursorKind, cursor, call.state.store.secret(), payload)) {
      throw BadArgument("request body: cursor: invalid cursor");
    }
    const boost::json::value parsed = boost::json::parse(payload);
    const ArgReader saved(parsed, false);
    SearchArg arg = decodeSearchArg(saved);
    arg.position = static_cast<std::size_t>(saved.requiredUnsigned("position", 0, kMaxMatches));
    const auto account = static_cast<std::int64_t>(saved.requiredUnsigned("account", 0, INT64_MAX));
    if (account != call.account->id) throw BadArgument("request body: cursor: belongs to another account");
    search(call, arg);
  };
}

Route route(std::function<Endpoint(const ArgReader&)> decode) {
  Route made;
  made.scope = "files.metadata.read";
  made.decode = std::move(decode);
  return made;
}

}  // namespace

void addSearchRoutes(RouteTable& table) {
  table.api["files/search_v2"] = route(decodeSearch);
  table.api["files/search/continue_v2"] = route(decodeSearchContinue);
}

}  // namespace kzv::standin
