#include "standin/Encoding.h"
#include "standin/api/ApiError.h"
#include "standin/api/JsonWriter.h"
#include "standin/api/Routes.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kMaxFormBytes = 65536;

using Fields = std::map<std::string, std::string>;

std::string fieldOr(const Fields& fields, const std::string& name, std::string fallback = {}) {
  const auto found = fields.find(name);
  return found == fields.end() ? fallback : found->second;
}

// --- POST /oauth2/token (RFC 6749, sections 4.1.3, 5 and 6)

[[noreturn]] void failOAuth(const char* error, const char* description) {
  JsonWriter json;
  json.beginObject().field("error", error).field("error_description", description).endObject();
  throw ApiError(jsonResponse(400, json.take()));
}

struct ClientCredentials {
  std::string id;
  bool hasSecret = false;
};

ClientCredentials clientOf(const HttpRequest& request, const Fields& form) {
  ClientCredentials client{fieldOr(form, "client_id"), !fieldOr(form, "client_secret").empty()};
  const auto header = request.header("Authorization");
  if (header && equalsIgnoringCase(header->substr(0, 6), "Basic ")) {
    const auto pair = base64Decode(header->substr(6));
    const auto colon = pair ? pair->find(':') : std::string::npos;
    if (colon == std::string::npos) failOAuth("invalid_client", "malformed HTTP Basic credentials");
    client.id = urlDecode(pair->substr(0, colon));
    client.hasSecret = colon + 1 < pair->size();
  }
  if (client.id.empty()) failOAuth("invalid_client", "missing client_id");
  return client;
}

std::string tokenJson(const ServiceState& state, const IssuedTokens& issued, bool isRefresh, bool narrowed) {
  JsonWriter json;
  json.beginObject().field("access_token", issued.accessToken).field("token_type", "bearer");
  json.field("expires_in", issued.expiresInSeconds);
  if (!isRefresh && !issued.refreshToken.empty()) json.field("refresh_token", issued.refreshToken);
  if (!isRefresh || narrowed) json.field("scope", issued.scope);
  if (!isRefresh) {
    const auto account = state.accounts.byId(issued.account);
    if (!account) failOAuth("invalid_grant", "the account is gone");
    json.field("uid", std::string_view(std::to_string(account->homeNamespace)));
    json.field("account_id", account->accountId);
  }
  json.endObject();
  return json.take();
}

std::string exchangeCode(ServiceState& state, const ClientCredentials& client, const Fields& form) {
  const std::string code = fieldOr(form, "code");
  if (code.empty()) failOAuth("invalid_request", "missing required field \"code\"");
  const auto approval = state.tokens.takeCode(code);
  if (!approval) failOAuth("invalid_grant", "code doesn't exist or has expired");
  if (approval->client != client.id) failOAuth("invalid_grant", "code was not issued to this client");
  if (approval->redirectUri != fieldOr(form, "redirect_uri")) {
    failOAuth("invalid_grant", "redirect_uri does not match the one of the authorization request");
  }
  if (!approval->challenge.empty()) {
    if (!verifierMatches(*approval, fieldOr(form, "code_verifier")))
      failOAuth("invalid_grant", "invalid code verifier");
  } else if (!client.hasSecret) {
    failOAuth("invalid_client", "neither code_verifier nor client_secret");
  }
  return tokenJson(state, state.tokens.grant(*approval), false, false);
}

std::string refreshTokens(ServiceState& state, const ClientCredentials& client, const Fields& form) {
  const std::string token = fieldOr(form, "refresh_token");
  if (token.empty()) failOAuth("invalid_request", "missing required field \"refresh_token\"");
  const std::string scope = fieldOr(form, "scope");
  RefreshFailure failure = RefreshFailure::none;
  const auto issued = state.tokens.refresh(token, client.id, scope, failure);
  if (failure == RefreshFailure::scopeNotGranted) failOAuth("invalid_scope", "scope was not granted");
  if (failure == RefreshFailure::otherClient)
    failOAuth("invalid_client", "refresh token belongs to another client");
  if (!issued) failOAuth("invalid_grant", "refresh token is invalid or revoked");
  return tokenJson(state, *issued, true, !scope.empty());
}

void token(ServiceState& state, HttpRequest& request, HttpResponse& response, const NoteArgument& note) {
  const std::string_view type = request.header("Content-Type").value_or("");
  if (!equalsIgnoringCase(type.substr(0, type.find(';')), "application/x-www-form-urlencoded")) {
    failOAuth("invalid_request", "the body must be application/x-www-form-urlencoded");
  }
  const Fields form = formDecode(readWholeBody(request, kMaxFormBytes));
  note(redactedFields(form, {"grant_type", "client_id", "redirect_uri", "scope"}));
  const std::string grantType = fieldOr(form, "grant_type");
  if (grantType.empty()) failOAuth("invalid_request", "missing required field \"grant_type\"");
  if (grantType != "authorization_code" && grantType != "refresh_token") {
    failOAuth("unsupported_grant_type", "only authorization_code and refresh_token");
  }
  const ClientCredentials client = clientOf(request, form);
  response = jsonResponse(200, grantType == "refresh_token" ? refreshTokens(state, client, form)
                                                            : exchangeCode(state, client, form));
  response.headers.emplace_back("Cache-Control", "no-store");
}

}  // namespace

void addSignInRoutes(RouteTable& table, ServiceState& state) {
  table.plain["POST /oauth2/token"] = [&state](HttpRequest& request, HttpResponse& response,
                                               const NoteArgument& note) {
    token(state, request, response, note);
  };
}

}  // namespace kzv::standin
