#include <boost/json.hpp>

#include <fmt/format.h>

#include "standin/api/ApiError.h"
#include "standin/api/JsonWriter.h"
#include "standin/api/Routes.h"
#include "standin/store/Bodies.h"
#include "standin/store/FileWriter.h"

namespace kzv::standin {
namespace {

namespace json = boost::json;

constexpr std::size_t kMaxBodyBytes = 67108864;
constexpr std::uint64_t kNoLimit = 1ULL << 62;
// Number of different contents of synthetic files: enough to notice mixed-up files.
constexpr std::int64_t kSyntheticVariants = 64;

json::value readJson(HttpRequest& request) {
  const std::string body = readWholeBody(request, kMaxBodyBytes);
  json::error_code problem;
  json::value value = json::parse(body, problem);
  if (problem) throw BadArgument("the body is not JSON: " + problem.message());
  return value;
}

// Admin requests are checked strictly: a misspelt field must not make a test pass.
ArgReader strictReader(const json::value& value) { return ArgReader(value, true); }

std::int64_t signedField(const ArgReader& reader, std::string_view field) {
  const json::value* value = reader.raw(field);
  if (!value->is_int64()) reader.fail(field, "expected integer");
  return value->get_int64();
}

std::optional<std::uint64_t> countField(const ArgReader& reader, std::string_view field) {
  return reader.optionalUnsigned(field, 0, kNoLimit);
}

Account accountField(const ServiceState& state, const ArgReader& reader) {
  const std::string given = reader.requiredString("account");
  const TokenCheck check = state.tokens.check(given);
  auto account =
      check.state == TokenState::invalid ? state.accounts.byEmail(given) : state.accounts.byId(check.account);
  // The text may be a token and must not be in the answer.
  if (!account) reader.fail("account", "neither a known access token nor the e-mail address of an account");
  return std::move(*account);
}

NormalPath pathField(const ServiceState& state, const Account& account, const ArgReader& reader,
                     std::string_view field) {
  NormalPath path;
  if (normalisePath(reader.requiredString(field), state.pathOptions(), path) == PathVerdict::malformed) {
    reader.fail(field, "malformed path");
  }
  if (path.isRoot()) reader.fail(field, "must not be the root");
  return {account.home.display + path.display, account.home.lower + path.lower};
}

[[noreturn]] void failConflict(const std::string& problem) { throw ApiError(textResponse(409, problem)); }

HttpResponse okResponse() { return jsonResponse(200, "{\"ok\":true}"); }

// --- faults

void addFaults(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  std::vector<FaultOrder> orders;
  if (const auto* list = body.if_array()) {
    for (const auto& item : *list) orders.push_back(readFaultOrder(strictReader(item)));
  } else {
    orders.push_back(readFaultOrder(strictReader(body)));
  }
  JsonWriter made;
  made.beginObject().key("ids").beginArray();
  for (auto& order : orders) made.number(state.faults.add(std::move(order)));
  made.endArray().endObject();
  response = jsonResponse(200, made.take());
}

void writeReport(JsonWriter& out, const Faults::Report& report) {
  out.beginObject().field("id", report.id);
  writeFaultOrder(out, report.order);
  out.field("claimed", static_cast<std::int64_t>(report.claimed));
  out.field("hits", static_cast<std::int64_t>(report.hits)).endObject();
}

void listFaults(ServiceState& state, HttpRequest&, HttpResponse& response, const NoteArgument&) {
  JsonWriter out;
  out.beginArray();
  for (const auto& report : state.faults.report()) writeReport(out, report);
  out.endArray();
  response = jsonResponse(200, out.take());
}

void clearFaults(ServiceState& state, HttpRequest&, HttpResponse& response, const NoteArgument&) {
  state.faults.clear();
  response = okResponse();
}

// --- requests

HttpResponse requestList(const std::vector<RequestLog::Line>& lines) {
  JsonWriter out;
  out.beginArray();
  for (const auto& line : lines) {
    out.beginObject().field("number", static_cast<std::int64_t>(line.number)).field("time", line.time);
    out.field("method", line.method).field("route", line.route).field("status", std::int64_t{line.status});
    out.key("arg").raw(line.arg);
    out.field("bytes_in", static_cast<std::int64_t>(line.bytesIn));
    out.field("bytes_out", static_cast<std::int64_t>(line.bytesOut)).endObject();
  }
  out.endArray();
  return jsonResponse(200, out.take());
}

void listRequests(ServiceState& state, HttpRequest&, HttpResponse& response, const NoteArgument&) {
  response = requestList(state.requests.lines());
}

void clearRequests(ServiceState& state, HttpRequest&, HttpResponse& response, const NoteArgument&) {
  response = requestList(state.requests.takeLines());
}

// --- changes by another device

std::vector<FileContent> syntheticContents(Store::Writer& writer, std::int64_t sizeBytes, std::int64_t files,
                                           std::int64_t now) {
  std::vector<FileContent> contents;
  for (std::int64_t seed = 1; seed <= std::min(kSyntheticVariants, files); ++seed) {
    const auto content = storeSyntheticContent(writer, seed, static_cast<std::uint64_t>(sizeBytes));
    contents.push_back({content, sizeBytes, now, now});
  }
  return contents;
}

void makeTree(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  const ArgReader reader = strictReader(body);
  const Account account = accountField(state, reader);
  const NormalPath path = pathField(state, account, reader, "path");
  const auto folders = reader.optionalUnsigned("folders", 0, 1000000).value_or(0);
  const auto files = static_cast<std::size_t>(reader.optionalUnsigned("files", 0, 10000000).value_or(0));
  const auto size = static_cast<std::int64_t>(reader.optionalUnsigned("size", 0, 1ULL << 40).value_or(0));
  reader.done();

  Store::Writer writer(state.store);
  TreeEditor editor(writer, account.tree);
  if (editor.tree().find(path.lower)) failConflict("there is already an item at this path");
  const auto top = editor.ensureFolder(path);
  if (!top) failConflict("a file is in the way");
  const auto contents = syntheticContents(writer, size, static_cast<std::int64_t>(files), state.clock.now());
  if (folders == 0 && files > 0) editor.addManyFiles(*top, files, contents);
  for (std::uint64_t i = 1; i <= folders; ++i) {
    const std::string name = fmt::format("older {:04}", i);
    const Folder made =
        *editor.ensureFolder({top->path.display + "/F" + name, top->path.lower + "/f" + name});
    if (files > 0) editor.addManyFiles(made, files, contents);
  }
  writer.commit();
  response = okResponse();
}

void writeFile(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  const ArgReader reader = strictReader(body);
  const Account account = accountField(state, reader);
  const NormalPath path = pathField(state, account, reader, "path");
  const std::string text = reader.requiredString("text");
  const auto modified = reader.optionalTime("client_modified").value_or(state.clock.now());
  reader.done();
  Store::Writer writer(state.store);
  if (!writeText(writer, account.tree, path, text, modified))
    failConflict("a folder or a file is in the way");
  writer.commit();
  response = okResponse();
}

void makeFolder(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  const ArgReader reader = strictReader(body);
  const Account account = accountField(state, reader);
  const NormalPath path = pathField(state, account, reader, "path");
  reader.done();
  Store::Writer writer(state.store);
  if (!TreeEditor(writer, account.tree).ensureFolder(path)) failConflict("a file is in the way");
  writer.commit();
  response = okResponse();
}

void deletePath(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  const ArgReader reader = strictReader(body);
  const Account account = accountField(state, reader);
  const NormalPath path = pathField(state, account, reader, "path");
  reader.done();
  Store::Writer writer(state.store);
  TreeEditor editor(writer, account.tree);
  const auto entry = editor.tree().find(path.lower);
  if (!entry) failConflict("there is no item at this path");
  editor.remove(*entry);
  writer.commit();
  response = okResponse();
}

void movePath(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  const ArgReader reader = strictReader(body);
  const Account account = accountField(state, reader);
  const NormalPath from = pathField(state, account, reader, "from");
  const NormalPath to = pathField(state, account, reader, "to");
  reader.done();
  Store::Writer writer(state.store);
  TreeEditor editor(writer, account.tree);
  const auto entry = editor.tree().find(from.lower);
  if (!entry) failConflict("there is no item at the source path");
  if (editor.tree().find(to.lower)) failConflict("there is already an item at the target path");
  if (isBelow(to.lower, from.lower)) failConflict("the target is inside the source");
  const auto parent = editor.ensureFolder(to.parent());
  if (!parent) failConflict("a file is in the way");
  editor.move(*entry, to, *parent);
  writer.commit();
  response = okResponse();
}

// --- settings

void applySwitches(ServiceState& state, const ArgReader& reader) {
  Settings& settings = state.settings;
  const auto count = [&](std::string_view field, std::atomic<std::int64_t>& target) {
    if (const auto value = countField(reader, field)) target = static_cast<std::int64_t>(*value);
  };
  const auto flag = [&](std::string_view field, std::atomic<bool>& target) {
    if (reader.has(field)) target = reader.boolean(field, false);
  };
  count("page_size", settings.pageSize);
  count("commit_delay_ms", settings.commitDelayMs);
  flag("display_case_quirk", settings.displayCaseQuirk);
  flag("refuse_beyond_bmp", settings.refuseBeyondBmp);
  flag("write_contention", settings.writeContention);
  flag("single_writer", settings.singleWriter);
  if (const auto status = countField(reader, "contention_status")) {
    if (*status != 409 && *status != 429) reader.fail("contention_status", "expected 409 or 429");
    settings.contentionStatus = static_cast<std::int64_t>(*status);
  }
  if (const auto seconds = countField(reader, "token_lifetime_s")) {
    state.tokens.setLifetime(static_cast<std::int64_t>(*seconds));
  }
  if (reader.has("clock_offset_s")) state.clock.setOffset(signedField(reader, "clock_offset_s"));
}

void applyApproval(ServiceState& state, const ArgReader& reader) {
  const std::string mode = reader.tag("approve", {"page", "auto", "deny"}, "");
  if (mode == "page") state.settings.setApprove(ApproveMode::page);
  if (mode == "auto") state.settings.setApprove(ApproveMode::automatic);
  if (mode == "deny") state.settings.setApprove(ApproveMode::deny);
  if (const auto email = reader.optionalString("approve_as")) state.settings.setApproveAs(*email);
}

void applyAccountSettings(ServiceState& state, const ArgReader& reader) {
  std::vector<Account> accounts = state.accounts.all();
  if (reader.has("account")) accounts = {accountField(state, reader)};
  if (const auto quota = countField(reader, "quota")) {
    for (const auto& account : accounts)
      state.accounts.setQuota(account.id, static_cast<std::int64_t>(*quota));
  }
  if (reader.has("team_form")) {
    for (const auto& account : accounts)
      state.accounts.setTeamForm(account.id, reader.boolean("team_form", false));
  }
  if (reader.boolean("team_root", false)) {
    for (const auto& account : accounts) state.accounts.moveIntoTeamRoot(account.id);
  }
}

void revokeByOrder(ServiceState& state, const ArgReader& reader) {
  const auto target = reader.optionalString("revoke");
  if (!target) return;
  if (const auto account = state.accounts.byEmail(*target)) {
    state.tokens.revokeAccount(account->id);
  } else {
    state.tokens.revoke(*target);
  }
}

void changeSettings(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument&) {
  const json::value body = readJson(request);
  const ArgReader reader = strictReader(body);
  reader.ignore({"account", "approve", "approve_as", "quota", "team_form", "team_root", "revoke",
                 "reset_cursors", "page_size", "commit_delay_ms", "display_case_quirk", "refuse_beyond_bmp",
                 "write_contention", "single_writer", "contention_status", "token_lifetime_s",
                 "clock_offset_s"});
  reader.done();
  applySwitches(state, reader);
  applyApproval(state, reader);
  applyAccountSettings(state, reader);
  revokeByOrder(state, reader);
  if (reader.boolean("reset_cursors", false)) state.store.storeEpoch(++state.settings.cursorEpoch);
  response = okResponse();
}

}  // namespace

void addAdminRoutes(RouteTable& table, ServiceState& state) {
  using Handler = void (*)(ServiceState&, HttpRequest&, HttpResponse&, const NoteArgument&);
  const std::pair<const char*, Handler> routes[] = {
      {"POST /admin/faults", addFaults},         {"GET /admin/faults", listFaults},
      {"DELETE /admin/faults", clearFaults},     {"GET /admin/requests", listRequests},
      {"DELETE /admin/requests", clearRequests}, {"POST /admin/tree", makeTree},
      {"POST /admin/write", writeFile},          {"POST /admin/folder", makeFolder},
      {"POST /admin/delete", deletePath},        {"POST /admin/move", movePath},
      {"POST /admin/settings", changeSettings}};
  for (const auto& [key, handler] : routes) {
    table.admin[key] = [&state, handler = handler](HttpRequest& request, HttpResponse& response,
                                                   const NoteArgument& note) {
      handler(state, request, response, note);
    };
  }
}

}  // namespace kzv::standin
