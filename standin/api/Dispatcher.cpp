#include "standin/api/Dispatcher.h"

#include <algorithm>
#include <atomic>
#include <boost/json.hpp>
#include <cstdio>

#include <fmt/format.h>

#include "standin/Encoding.h"
#include "standin/api/ApiError.h"
#include "standin/api/JsonWriter.h"
#include "standin/faults/FaultRun.h"

namespace kzv::standin {
namespace {

namespace json = boost::json;

// Far above any argument of the API, even finish_batch with 1000 entries.
constexpr std::size_t kMaxArgumentBytes = 8388608;

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> candidates) {
  for (const auto candidate : candidates) {
    if (equalsIgnoringCase(text, candidate)) return true;
  }
  return false;
}

std::optional<std::string> urlParameter(const HttpRequest& request, const std::string& name) {
  const auto fields = formDecode(request.query);
  const auto found = fields.find(name);
  if (found == fields.end()) return std::nullopt;
  return found->second;
}

void checkContentType(const Route& route, const HttpRequest& request) {
  const auto given = request.header("Content-Type");
  const std::string_view type = given.value_or("");
  bool accepted = false;
  switch (route.style) {
    case RouteStyle::rpc:
      accepted = isOneOf(type, {"application/json", "application/json; charset=utf-8",
                                "text/plain; charset=dropbox-cors-hack"}) ||
                 (!route.hasArgument && !given);
      break;
    case RouteStyle::upload:
      accepted = isOneOf(type, {"application/octet-stream", "text/plain; charset=dropbox-cors-hack"});
      break;
    case RouteStyle::download:
      accepted =
          !given || type.empty() ||
          isOneOf(type, {"application/octet-stream", "application/octet-stream; charset=utf-8", "text/plain",
                         "text/plain; charset=utf-8", "text/plain; charset=dropbox-cors-hack"});
      break;
  }
  if (accepted) return;
  if (!given) throw BadArgument("Missing HTTP \"Content-Type\" header.");
  throw BadArgument(fmt::format("Bad HTTP \"Content-Type\" header: \"{}\".", type));
}

void checkMethod(const Route& route, const HttpRequest& request) {
  if (request.method == "POST" || (request.method == "GET" && route.style == RouteStyle::download)) return;
  throw BadArgument(
      fmt::format("Your request's HTTP request method is \"{}\". This function only accepts the HTTP request "
                  "method \"POST\".",
                  request.method));
}

bool isAscii(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) > 0x7E) return false;
  }
  return true;
}

json::value parseJson(std::string_view text, std::string_view place) {
  json::error_code problem;
  json::parse_options options;
  options.max_depth = 64;
  json::value value = json::parse(json::string_view(text.data(), text.size()), problem, {}, options);
  if (problem) throw BadArgument(fmt::format("{}: could not decode input as JSON", place));
  return value;
}

/// Whether a Host header (RFC 9110, 7.2) names this machine and the request's port. Another name may belong
/// to a web page that resolves it to this machine (DNS rebinding).
bool isOwnHost(std::string_view host, int port) {
  const std::string suffix = ":" + std::to_string(port);
  if (!host.ends_with(suffix)) return false;
  return isOneOf(host.substr(0, host.size() - suffix.size()), {"127.0.0.1", "localhost", "[::1]"});
}

/// Admin requests come from tests and tools on this machine, never from web pages: browsers send the page's
/// origin, and need a preflight request to send JSON to another origin.
void refuseStrangers(const HttpRequest& request) {
  const auto refuse = [](int status, const char* reason) { throw ApiError(textResponse(status, reason)); };
  if (!request.fromLoopback) refuse(403, "Admin routes answer on loopback only.");
  const std::string_view host = request.header("Host").value_or("");
  if (!isOwnHost(host, request.localPort))
    refuse(403, "Admin routes answer to the address of this service only; see the \"Host\" header.");
  const auto origin = request.header("Origin");
  if (origin && *origin != "http://" + std::string(host))
    refuse(403, "Admin routes refuse requests from other web pages; see the \"Origin\" header.");
  const std::string_view type = request.header("Content-Type").value_or("");
  if (request.method == "POST" && !isOneOf(type, {"application/json", "application/json; charset=utf-8"}))
    refuse(415, "Admin requests are JSON; send \"Content-Type: application/json\".");
}

// Valid JSON is logged unchanged; other bytes in hex.
std::string loggedArgument(std::string_view text) {
  json::error_code problem;
  json::parse(json::string_view(text.data(), text.size()), problem);
  if (!problem && !text.empty()) return std::string(text);
  if (text.empty()) return "null";
  JsonWriter quoted;
  quoted.string(hexEncode(text.substr(0, 256)));
  return quoted.take();
}

}  // namespace

void Call::reply(std::string text) { response = jsonResponse(200, std::move(text)); }

std::string redactedFields(const std::map<std::string, std::string>& fields,
                           std::initializer_list<std::string_view> shown) {
  JsonWriter json;
  json.beginObject();
  for (const auto& [name, value] : fields) {
    const bool isShown = std::find(shown.begin(), shown.end(), name) != shown.end();
    // Field names are untrusted and may need escapes, which key() does not write.
    std::string escaped;
    appendJsonEscaped(escaped, asciiJson(name));
    json.field(escaped, std::string_view(isShown ? asciiJson(value) : "(hidden)"));
  }
  json.endObject();
  return json.take();
}

std::string readWholeBody(HttpRequest& request, std::size_t maxBytes) {
  std::string body;
  bool tooLong = false;
  const bool complete = request.readBody([&](std::string_view bytes) {
    tooLong = body.size() + bytes.size() > maxBytes;
    if (!tooLong) body += bytes;
    return !tooLong;
  });
  if (tooLong) throw ApiError(textResponse(413, "The request body is too large."));
  if (!complete) throw ApiError(textResponse(400, "The request body is incomplete."));
  return body;
}

Dispatcher::Dispatcher(ServiceState& state) : state_(state) {
  addAccountRoutes(table_);
  addFilesReadRoutes(table_);
  addDownloadRoutes(table_);
  addSearchRoutes(table_);
  addFilesWriteRoutes(table_);
  addUploadRoutes(table_);
  addSharingRoutes(table_);
  addSignInRoutes(table_, state_);
  addAuthorizePage(table_, state_);
  if (state_.options.admin) addAdminRoutes(table_, state_);
}

void Dispatcher::stop() { state_.faults.stop(); }

void Dispatcher::handle(HttpRequest& request, HttpResponse& response) {
  std::uint64_t logNumber = 0;
  try {
    dispatch(request, response, logNumber);
  } catch (const ApiError& error) {
    response = error.response();
  } catch (const BadArgument& error) {
    response = textResponse(400, error.detail());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kzv-service: %s %s: %s\n", request.method.c_str(), request.path.c_str(),
                 error.what());
    response = textResponse(500, "Internal error of the service.");
  }
  response.headers.emplace_back("X-Dropbox-Request-Id", hexEncode(randomBytes(16)));
  response.headers.emplace_back("Date", httpDate(state_.clock.now()));
  if (logNumber != 0) state_.requests.setStatus(logNumber, response.status);
}

void Dispatcher::dispatch(HttpRequest& request, HttpResponse& response, std::uint64_t& logNumber) {
  constexpr std::string_view apiPrefix = "/2/";
  if (request.path.compare(0, apiPrefix.size(), apiPrefix) == 0) {
    serveApi(urlDecode(request.path.substr(apiPrefix.size())), request, response, logNumber);
    return;
  }
  const std::string key = request.method + " " + request.path;
  if (const auto plain = table_.plain.find(key); plain != table_.plain.end()) {
    servePlain(request.path.substr(1), plain->second, request, response, logNumber);
    return;
  }
  if (const auto admin = table_.admin.find(key); admin != table_.admin.end()) {
    serveAdmin(admin->second, request, response);
    return;
  }
  logNumber =
      state_.requests.begin(request.method, request.path.substr(1), state_.clock.now(), request.transfer);
  response = textResponse(404, "There is nothing at this address.");
}

void Dispatcher::serveAdmin(const PlainRoute& route, HttpRequest& request, HttpResponse& response) {
  refuseStrangers(request);
  route(request, response, [](const std::string&) {});
}

void Dispatcher::servePlain(const std::string& key, const PlainRoute& route, HttpRequest& request,
                            HttpResponse& response, std::uint64_t& logNumber) {
  logNumber = state_.requests.begin(request.method, key, state_.clock.now(), request.transfer);
  withFaults(state_.faults, key, false, request, response, [&] {
    try {
      route(request, response, [&](std::string json) { state_.requests.setArg(logNumber, std::move(json)); });
    } catch (const ApiError& error) {
      response = error.response();
    }
  });
}

void Dispatcher::serveApi(const std::string& name, HttpRequest& request, HttpResponse& response,
                          std::uint64_t& logNumber) {
  logNumber = state_.requests.begin(request.method, name, state_.clock.now(), request.transfer);
  const auto found = table_.api.find(name);
  if (found == table_.api.end()) {
    response = textResponse(400, fmt::format("Unknown API function: \"{}\"", name));
    return;
  }
  try {
    serveRoute(name, found->second, request, response, logNumber);
  } catch (const BadArgument& error) {
    response =
        textResponse(400, fmt::format("Error in call to API function \"{}\": {}", name, error.detail()));
  }
}

std::string Dispatcher::argumentText(const Route& route, HttpRequest& request) {
  if (route.style == RouteStyle::rpc) {
    std::string body = readWholeBody(request, kMaxArgumentBytes);
    if (body.empty() && route.hasArgument) {
      if (const auto parameter = urlParameter(request, "arg")) return *parameter;
    }
    return body;
  }
  if (const auto header = request.header("Dropbox-API-Arg")) {
    if (state_.options.strict && !isAscii(*header)) {
      throw BadArgument(
          "HTTP header \"Dropbox-API-Arg\": must be printable ASCII; escape other characters as \\uXXXX");
    }
    return std::string(*header);
  }
  if (const auto parameter = urlParameter(request, "arg")) return *parameter;
  throw BadArgument("Must provide HTTP header \"Dropbox-API-Arg\" or URL parameter \"arg\".");
}

std::string Dispatcher::accessToken(const Route& route, const HttpRequest& request) {
  const auto header = request.header("Authorization");
  const std::string value =
      header ? std::string(*header) : urlParameter(request, "authorization").value_or("");
  if (route.auth == RouteAuth::none) {
    if (value.empty()) return {};
    throw BadArgument(
        "This function does not take any authorization; remove the HTTP header \"Authorization\".");
  }
  if (value.empty()) {
    throw BadArgument("Must provide HTTP header \"Authorization\" or URL parameter \"authorization\".");
  }
  // The value is a secret and must not be in the text.
  constexpr std::string_view allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~+/=";
  if (!equalsIgnoringCase(value.substr(0, 7), "Bearer ") || value.size() == 7 ||
      value.find_first_not_of(allowed, 7) != std::string::npos) {
    throw BadArgument(
        "Invalid authorization value in HTTP header \"Authorization\"; expecting \"Bearer TOKEN\".");
  }
  return value.substr(7);
}

void Dispatcher::serveRoute(const std::string& name, const Route& route, HttpRequest& request,
                            HttpResponse& response, std::uint64_t logNumber) {
  checkMethod(route, request);
  checkContentType(route, request);
  const std::string text = argumentText(route, request);
  state_.requests.setArg(logNumber, loggedArgument(text));
  const std::string place =
      route.style == RouteStyle::rpc ? "request body" : "HTTP header \"Dropbox-API-Arg\"";
  Call call{state_, request, response, {}, {}, accessToken(route, request)};
  Endpoint endpoint;
  if (!route.hasArgument) {
    if (!text.empty() && !parseJson(text, place).is_null()) {
      throw BadArgument(place + ": expected null, got value");
    }
    endpoint = route.decode(ArgReader(json::object(), false));
  } else {
    const json::value argument = parseJson(text, place);
    try {
      endpoint = route.decode(ArgReader(argument, state_.options.strict));
    } catch (const BadArgument& error) {
      throw BadArgument(place + ": " + error.detail());
    }
  }
  authorize(route, call);
  applyPathRoot(call);
  withFaults(state_.faults, name, route.style == RouteStyle::upload, request, response, [&] {
    try {
      endpoint(call);
    } catch (const ApiError& error) {
      response = error.response();
    }
  });
}

void Dispatcher::authorize(const Route& route, Call& call) {
  if (call.accessToken.empty()) return;
  const TokenCheck check = state_.tokens.check(call.accessToken);
  if (check.state == TokenState::invalid) failWithTags(401, {"invalid_access_token"});
  if (check.state == TokenState::expired) failWithTags(401, {"expired_access_token"});
  if (!route.scope.empty() && !hasScope(check.scope, route.scope)) {
    JsonWriter body;
    body.beginObject().field("error_summary", errorSummary({"missing_scope"})).key("error").beginObject();
    body.field(".tag", "missing_scope").field("required_scope", route.scope).endObject().endObject();
    throw ApiError(jsonResponse(401, body.take()));
  }
  call.account = state_.accounts.byId(check.account);
  if (!call.account) failWithTags(401, {"invalid_access_token"});
  call.root = {call.account->tree, call.account->homeNamespace, call.account->home};
}

namespace {

[[noreturn]] void failInvalidRoot(const Account& account) {
  JsonWriter body;
  body.beginObject().field("error_summary", errorSummary({"invalid_root"})).key("error").beginObject();
  body.field(".tag", "invalid_root").key("invalid_root").beginObject();
  body.field(".tag", account.home.isRoot() ? "user" : "team");
  body.field("root_namespace_id", std::to_string(account.rootNamespace));
  body.field("home_namespace_id", std::to_string(account.homeNamespace));
  if (!account.home.isRoot()) body.field("home_path", account.home.display);
  body.endObject().endObject().endObject();
  throw ApiError(jsonResponse(422, body.take()));
}

}  // namespace

void Dispatcher::applyPathRoot(Call& call) {
  const auto header = call.request.header("Dropbox-API-Path-Root");
  if (!header || !call.account) return;
  const std::string place = "HTTP header \"Dropbox-API-Path-Root\"";
  const json::value parsed = parseJson(*header, place);
  const Account& account = *call.account;
  std::string tag;
  std::string wanted;
  try {
    const ArgReader reader(parsed, false);
    tag = reader.requiredString(".tag");
    if (tag == "root" || tag == "namespace_id") wanted = reader.requiredString(tag);
  } catch (const BadArgument& error) {
    throw BadArgument(place + ": " + error.detail());
  }
  if (tag == "home") return;
  const PathRoot shared{account.tree, account.rootNamespace, {}};
  if (tag == "root") {
    if (wanted != std::to_string(account.rootNamespace)) failInvalidRoot(account);
    call.root = shared;
  } else if (tag == "namespace_id") {
    if (wanted == std::to_string(account.homeNamespace)) return;
    if (wanted != std::to_string(account.rootNamespace)) failWithTags(422, {"no_permission"});
    call.root = shared;
  } else {
    throw BadArgument(place + ": invalid tag '" + tag + "'");
  }
}

}  // namespace kzv::standin
