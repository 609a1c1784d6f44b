// Sign-in page, codes, tokens and their revocation.

#include <boost/json.hpp>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "standin/Encoding.h"
#include "standin/ServiceTestClient.h"

namespace kzv::standin::testing {
namespace {

constexpr const char* kVerifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
constexpr const char* kChallenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
constexpr const char* kRedirect = "http://localhost:53682/back";

using Fields = std::map<std::string, std::string>;

std::string form(const Fields& fields) {
  std::string text;
  for (const auto& [name, value] : fields)
    text += (text.empty() ? "" : "&") + urlEncode(name) + "=" + urlEncode(value);
  return text;
}

Answer openPage(const TestService& service, const Fields& changes = {}) {
  Fields query{{"client_id", "app"},
               {"response_type", "code"},
               {"redirect_uri", kRedirect},
               {"state", "s t&te"},
               {"token_access_type", "offline"},
               {"code_challenge", kChallenge},
               {"code_challenge_method", "S256"}};
  for (const auto& [name, value] : changes) query[name] = value;
  return service.send({.method = "GET", .target = "/oauth2/authorize?" + form(query)});
}

Answer post(const TestService& service, const std::string& target, const Fields& fields) {
  return service.send({.target = target,
                       .headers = {"Content-Type: application/x-www-form-urlencoded"},
                       .body = form(fields)});
}

Fields redirectFields(const Answer& answer) {
  const auto found = answer.headers.find("location");
  if (answer.status != 302 || found == answer.headers.end()) return {};
  EXPECT_EQ(found->second.find(std::string(kRedirect) + "?"), 0U) << found->second;
  return formDecode(found->second.substr(found->second.find('?') + 1));
}

Fields exchangeForm(const std::string& code, const Fields& changes = {}) {
  Fields fields{{"grant_type", "authorization_code"},
                {"code", code},
                {"client_id", "app"},
                {"redirect_uri", kRedirect},
                {"code_verifier", kVerifier}};
  for (const auto& [name, value] : changes) fields[name] = value;
  return fields;
}

ServiceOptions approving(ApproveMode mode) {
  ServiceOptions options;
  options.approve = mode;
  return options;
}

/// A service that approves at once.
class SignIn : public ::testing::Test {
 protected:
  std::string newCode(const Fields& changes = {}) {
    return redirectFields(openPage(service_, changes))["code"];
  }
  boost::json::value newTokens(const Fields& changes = {}) {
    return post(service_, "/oauth2/token", exchangeForm(newCode(changes))).json();
  }
  Answer refresh(const std::string& token, const Fields& changes = {}) {
    Fields fields{{"grant_type", "refresh_token"}, {"refresh_token", token}, {"client_id", "app"}};
    for (const auto& [name, value] : changes) fields[name] = value;
    return post(service_, "/oauth2/token", fields);
  }
  Answer whoAmI(const std::string& token) { return service_.rpc("users/get_current_account", "null", token); }

  TestService service_{approving(ApproveMode::automatic)};
};

TEST_F(SignIn, BringsTokensForTheAccount) {
  Fields back = redirectFields(openPage(service_));
  EXPECT_EQ(back["state"], "s t&te");
  const Answer answer = post(service_, "/oauth2/token", exchangeForm(back["code"]));
  ASSERT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(answer.headers.at("content-type"), "application/json");
  const auto tokens = answer.json();
  EXPECT_EQ(at(tokens, "token_type"), "bearer");
  EXPECT_EQ(at(tokens, "expires_in"), "14400");
  EXPECT_EQ(at(tokens, "account_id").size(), 40U);
  EXPECT_NE(at(tokens, "refresh_token"), "");
  const auto account = whoAmI(at(tokens, "access_token")).json();
  EXPECT_EQ(at(account, "account_id"), at(tokens, "account_id"));
  EXPECT_EQ(at(account, "email"), "ann@example.com");
  EXPECT_EQ(at(newTokens({{"token_access_type", "online"}}), "refresh_token"), "")
      << "only for offline access";
}

TEST_F(SignIn, CodesAreForOneUseByTheRightClient) {
  struct Row {
    const char* name;
    Fields exchange;
    const char* error;
  };
  const Row rows[] = {
      {"wrong verifier", {{"code_verifier", std::string(43, 'x')}}, "invalid_grant"},
      {"no verifier", {{"code_verifier", ""}}, "invalid_grant"},
      {"other address", {{"redirect_uri", "http://localhost:53682/other"}}, "invalid_grant"},
      {"no address", {{"redirect_uri", ""}}, "invalid_grant"},
      {"other client", {{"client_id", "other"}}, "invalid_grant"},
      {"no client", {{"client_id", ""}}, "invalid_client"},
      {"unknown code", {{"code", "guess"}}, "invalid_grant"},
      {"no code", {{"code", ""}}, "invalid_request"},
      {"no grant type", {{"grant_type", ""}}, "invalid_request"},
      {"other grant type", {{"grant_type", "password"}}, "unsupported_grant_type"},
  };
  for (const Row& row : rows) {
    const Answer answer = post(service_, "/oauth2/token", exchangeForm(newCode(), row.exchange));
    EXPECT_EQ(answer.status, 400) << row.name;
    EXPECT_EQ(at(answer.json(), "error"), row.error) << row.name << ": " << answer.body;
  }
  const std::string code = newCode();
  EXPECT_EQ(post(service_, "/oauth2/token", exchangeForm(code)).status, 200);
  EXPECT_EQ(at(post(service_, "/oauth2/token", exchangeForm(code)).json(), "error"), "invalid_grant")
      << "used twice";
  const std::string spoilt = newCode();
  post(service_, "/oauth2/token", exchangeForm(spoilt, {{"code_verifier", std::string(43, 'x')}}));
  EXPECT_EQ(post(service_, "/oauth2/token", exchangeForm(spoilt)).status, 400)
      << "a failed try uses the code up";
  const std::string late = newCode();
  service_.admin("POST", "settings", R"({"clock_offset_s":601})");
  EXPECT_EQ(post(service_, "/oauth2/token", exchangeForm(late)).status, 400) << "too late";
}

TEST_F(SignIn, AccessTokensExpireAndAreRefreshed) {
  service_.admin("POST", "settings", R"({"token_lifetime_s":100})");
  const auto tokens = newTokens();
  const std::string access = at(tokens, "access_token");
  EXPECT_EQ(at(tokens, "expires_in"), "100");
  EXPECT_EQ(whoAmI(access).status, 200);
  service_.admin("POST", "settings", R"({"clock_offset_s":101})");
  const Answer expired = whoAmI(access);
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(expired.errorTags(), "expired_access_token");
  const auto fresh = refresh(at(tokens, "refresh_token"));
  ASSERT_EQ(fresh.status, 200) << fresh.body;
  EXPECT_EQ(at(fresh.json(), "refresh_token"), "") << "the old refresh token stays";
  EXPECT_EQ(at(fresh.json(), "account_id"), "");
  EXPECT_EQ(whoAmI(at(fresh.json(), "access_token")).status, 200);
  EXPECT_EQ(at(refresh("guess").json(), "error"), "invalid_grant");
  EXPECT_EQ(at(refresh(at(tokens, "refresh_token"), {{"client_id", "other"}}).json(), "error"),
            "invalid_client");
}

TEST_F(SignIn, RevokingEndsTheWholeGrant) {
  const auto tokens = newTokens();
  const std::string sibling = at(refresh(at(tokens, "refresh_token")).json(), "access_token");
  const auto other = newTokens();
  const Answer revoked = service_.rpc("auth/token/revoke", "null", at(tokens, "access_token"));
  EXPECT_EQ(revoked.body, "null");
  EXPECT_EQ(whoAmI(at(tokens, "access_token")).errorTags(), "invalid_access_token");
  EXPECT_EQ(whoAmI(sibling).errorTags(), "invalid_access_token");
  EXPECT_EQ(at(refresh(at(tokens, "refresh_token")).json(), "error"), "invalid_grant");
  EXPECT_EQ(whoAmI(at(other, "access_token")).status, 200) << "another sign-in is another grant";
}

TEST_F(SignIn, ScopesLimitWhatATokenMayDo) {
  const auto tokens = newTokens({{"scope", "account_info.read files.metadata.read"}});
  const std::string access = at(tokens, "access_token");
  EXPECT_EQ(service_.rpc("files/list_folder", R"({"path":""})", access).status, 200);
  const Answer refused = service_.upload("files/upload", R"({"path":"/a"})", "x", access);
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(at(refused.json(), "error..tag"), "missing_scope");
  EXPECT_EQ(at(refused.json(), "error.required_scope"), "files.content.write");
  const auto narrower = refresh(at(tokens, "refresh_token"), {{"scope", "account_info.read"}});
  EXPECT_EQ(at(narrower.json(), "scope"), "account_info.read");
  EXPECT_EQ(service_.rpc("files/list_folder", R"({"path":""})", at(narrower.json(), "access_token")).status,
            401);
  EXPECT_EQ(at(refresh(at(tokens, "refresh_token"), {{"scope", "sharing.write"}}).json(), "error"),
            "invalid_scope");
}

TEST_F(SignIn, PageRefusesWhatItMustNotServe) {
  struct Row {
    const char* name;
    Fields changes;
    long status;
  };
  const Row rows[] = {
      {"https", {{"redirect_uri", "https://app.example/cb"}}, 302},
      {"loopback by number", {{"redirect_uri", "http://127.0.0.1:1/cb"}}, 302},
      {"loopback, version 6", {{"redirect_uri", "http://[::1]:1/cb"}}, 302},
      {"http elsewhere", {{"redirect_uri", "http://example.com/cb"}}, 400},
      {"loopback only as a prefix", {{"redirect_uri", "http://localhost.example.com/cb"}}, 400},
      {"user part in front", {{"redirect_uri", "http://localhost@example.com/cb"}}, 400},
      {"script", {{"redirect_uri", "javascript:alert(1)"}}, 400},
      {"line break", {{"redirect_uri", "http://localhost/\r\nX: y"}}, 400},
      {"no client", {{"client_id", ""}}, 400},
      {"token as answer", {{"response_type", "token"}}, 400},
      {"long state", {{"state", std::string(501, 's')}}, 400},
      {"unknown scope", {{"scope", "everything"}}, 400},
      {"unknown method", {{"code_challenge_method", "S512"}}, 400},
  };
  for (const Row& row : rows) EXPECT_EQ(openPage(service_, row.changes).status, row.status) << row.name;
}

TEST(SignInPage, DenialGoesBackToTheApplication) {
  const TestService service(approving(ApproveMode::deny));
  Fields back = redirectFields(openPage(service));
  EXPECT_EQ(back["error"], "access_denied");
  EXPECT_EQ(back["state"], "s t&te");
  EXPECT_EQ(back.count("code"), 0U);
}

/// The text of a page between `mark` and `end`.
std::string between(const std::string& html, const std::string& mark, char end) {
  const auto from = html.find(mark);
  if (from == std::string::npos) return {};
  return html.substr(from + mark.size(), html.find(end, from + mark.size()) - from - mark.size());
}
std::string hiddenTicket(const std::string& html) { return between(html, "name=\"ticket\" value=\"", '"'); }

TEST(SignInPage, AsksAndLetsAPersonDecide) {
  const TestService service;
  const Answer page = openPage(service, {{"client_id", "<b>app"}});
  ASSERT_EQ(page.status, 200);
  EXPECT_EQ(page.headers.at("content-type"), "text/html; charset=utf-8");
  EXPECT_NE(page.body.find("&lt;b&gt;app"), std::string::npos) << "what comes from outside is escaped";
  EXPECT_EQ(page.body.find("<b>app"), std::string::npos);
  const std::string ticket = hiddenTicket(page.body);

  const Answer unnamed =
      post(service, "/oauth2/authorize", {{"ticket", ticket}, {"decision", "allow"}, {"account", "new"}});
  EXPECT_EQ(unnamed.status, 400);
  EXPECT_EQ(hiddenTicket(unnamed.body), ticket) << "a form filled in wrongly can be corrected";
  const Fields allow{{"ticket", ticket},
                     {"decision", "allow"},
                     {"account", "new"},
                     {"name", "Carol New"},
                     {"email", "carol@example.com"}};
  Fields back = redirectFields(post(service, "/oauth2/authorize", allow));
  const auto tokens =
      post(service, "/oauth2/token", exchangeForm(back["code"], {{"client_id", "<b>app"}})).json();
  const auto account = service.rpc("users/get_current_account", "null", at(tokens, "access_token")).json();
  EXPECT_EQ(at(account, "name.display_name"), "Carol New");
  EXPECT_EQ(post(service, "/oauth2/authorize", allow).status, 400) << "a page is answered once";

  const std::string second = hiddenTicket(openPage(service).body);
  EXPECT_EQ(redirectFields(
                post(service, "/oauth2/authorize", {{"ticket", second}, {"decision", "cancel"}}))["error"],
            "access_denied");
  EXPECT_EQ(post(service, "/oauth2/authorize", {{"ticket", "forged"}, {"decision", "allow"}}).status, 400);
}

TEST(SignInPage, ShowsTheCodeWithoutARedirectAddress) {
  const TestService service(approving(ApproveMode::automatic));
  const Answer page = openPage(service, {{"redirect_uri", ""}});
  const std::string code = between(page.body, "<code id=\"code\">", '<');
  EXPECT_EQ(post(service, "/oauth2/token", exchangeForm(code, {{"redirect_uri", ""}})).status, 200);
}

}  // namespace
}  // namespace kzv::standin::testing
