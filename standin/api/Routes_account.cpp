#include <algorithm>

#include "standin/api/ApiError.h"
#include "standin/api/JsonWriter.h"
#include "standin/api/Routes.h"

namespace kzv::standin {
namespace {

struct NameParts {
  std::string given;
  std::string surname;
  std::string abbreviated;
};

NameParts splitName(const std::string& name) {
  const auto space = name.rfind(' ');
  NameParts parts{name.substr(0, space), space == std::string::npos ? "" : name.substr(space + 1), ""};
  parts.abbreviated = parts.given.substr(0, 1) + parts.surname.substr(0, 1);
  // Not the first byte of a multi-byte character.
  const bool isAscii = std::all_of(parts.abbreviated.begin(), parts.abbreviated.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (!isAscii) parts.abbreviated = parts.given;
  return parts;
}

void writeRootInfo(JsonWriter& json, const Account& account) {
  json.key("root_info").beginObject().field(".tag", account.home.isRoot() ? "user" : "team");
  json.field("root_namespace_id", std::string_view(std::to_string(account.rootNamespace)));
  json.field("home_namespace_id", std::string_view(std::to_string(account.homeNamespace)));
  if (!account.home.isRoot()) json.field("home_path", account.home.display);
  json.endObject();
}

void replyAccount(Call& call) {
  const Account& account = *call.account;
  const NameParts name = splitName(account.name);
  JsonWriter json;
  json.beginObject().field("account_id", account.accountId).key("name").beginObject();
  json.field("given_name", name.given).field("surname", name.surname).field("familiar_name", name.given);
  json.field("display_name", account.name).field("abbreviated_name", name.abbreviated).endObject();
  json.field("email", account.email)
      .field("email_verified", true)
      .field("disabled", false)
      .field("locale", "en");
  json.field("referral_link", "https://www.dropbox.com/referrals/stand-in").field("is_paired", false);
  json.key("account_type").beginObject().field(".tag", account.isTeam ? "business" : "basic").endObject();
  writeRootInfo(json, account);
  json.field("country", "DE").endObject();
  call.reply(json.take());
}

void replySpace(Call& call) {
  Store::Reader reader(call.state.store);
  const Space space = Accounts::space(reader.database(), call.account->tree);
  JsonWriter json;
  json.beginObject().field("used", space.usedBytes).key("allocation").beginObject();
  if (!call.account->isTeam) {
    json.field(".tag", "individual").field("allocated", space.quotaBytes);
  } else {
    json.field(".tag", "team").field("used", space.usedBytes).field("allocated", space.quotaBytes);
    json.field("user_within_team_space_allocated", std::int64_t{0});
    json.key("user_within_team_space_limit_type").beginObject().field(".tag", "off").endObject();
    json.field("user_within_team_space_used_cached", space.usedBytes);
  }
  json.endObject().endObject();
  call.reply(json.take());
}

void revokeToken(Call& call) {
  call.state.tokens.revoke(call.accessToken);
  call.reply("null");
}

Route withoutArgument(std::string scope, void (*endpoint)(Call&)) {
  Route route;
  route.scope = std::move(scope);
  route.hasArgument = false;
  route.decode = [endpoint](const ArgReader&) { return Endpoint(endpoint); };
  return route;
}

}  // namespace

void addAccountRoutes(RouteTable& table) {
  table.api["users/get_current_account"] = withoutArgument("account_info.read", replyAccount);
  table.api["users/get_space_usage"] = withoutArgument("account_info.read", replySpace);
  table.api["auth/token/revoke"] = withoutArgument("", revokeToken);
}

}  // namespace kzv::standin
