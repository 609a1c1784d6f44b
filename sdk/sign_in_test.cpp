#include <chrono>
#include <cstdlib>
#include <future>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "sdk/SignIn.h"
#include "sdk/testing/ClientFixture.h"

namespace {

/// The value of a query's field, decoded.
std::string field(const std::string& url, const std::string& name) {
  const auto begin = url.find(name + "=");
  if (begin == std::string::npos) return "";
  const auto first = begin + name.size() + 1;
  const std::string encoded = url.substr(first, url.find('&', first) - first);
  char* text = curl_easy_unescape(nullptr, encoded.c_str(), 0, nullptr);
  std::string decoded(text);
  curl_free(text);
  return decoded;
}

/// What the browser does; the status, or 0 when nobody listens.
long visit(const std::string& url) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), &curl_easy_cleanup);
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "*");
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(
      easy.get(), CURLOPT_WRITEFUNCTION, +[](char*, std::size_t, std::size_t size, void*) { return size; });
  long status = 0;
  if (curl_easy_perform(easy.get()) == CURLE_OK)
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

class BrowserSignIn : public ClientFixture {
 protected:
  BrowserSignIn() { ::setenv("KZV_SIGN_IN_PORT", "0", 1); }
  ~BrowserSignIn() override { ::unsetenv("KZV_SIGN_IN_PORT"); }
  std::shared_ptr<void> serveTokens() {
    auto serving = serve([](const ScriptedRequest& request) {
      if (request.body.find("code=good") == std::string::npos)
        return jsonReply(R"({"error":"invalid_grant"})", 400);
      return jsonReply(R"({"access_token":"new","expires_in":14400,"refresh_token":"r","account_id":"u2"})");
    });
    client = makeClient(std::nullopt);
    return serving;
  }
  std::string begin() {
    return outcome([](DBRestClient& own) { own.loadRequestToken(DBRestClient::SignInCode::byRedirect); });
  }
  std::string loadAccessToken() {
    return outcome([](DBRestClient& own) { own.loadAccessToken(); });
  }
  std::string redirect() const { return field(client->authorizeURL(), "redirect_uri"); }
  std::string state() const { return field(client->authorizeURL(), "state"); }
};

TEST(SignIn, ChallengeAgreesWithThePublishedValue) {
  EXPECT_EQ(SignIn::challengeFor("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

TEST(SignIn, ThePageIsSentBeforeWhatTheAnswerSetsOff) {
  ::setenv("KZV_SIGN_IN_PORT", "0", 1);
  std::promise<void> pageHasCome;
  std::future_status seen{};  // by the first who hears of the answer, who may end the program
  {
    const SignIn signIn(true, [&] { seen = pageHasCome.get_future().wait_for(std::chrono::seconds(10)); });
    const std::string url = signIn.pageAddress("", "key");
    EXPECT_EQ(visit(field(url, "redirect_uri") + "?error=access_denied&state=" + field(url, "state")), 200);
    pageHasCome.set_value();
  }
  EXPECT_EQ(seen, std::future_status::ready);
}

TEST_F(BrowserSignIn, LinksTheAccountThatApproved) {
  const auto serving = serveTokens();
  EXPECT_FALSE(client->requestTokenLoaded());
  ASSERT_EQ(begin(), "sign-in begun");
  const std::string url = client->authorizeURL();
  EXPECT_TRUE(url.starts_with(server->url() + "/oauth2/authorize?client_id=key&response_type=code&"));
  EXPECT_EQ(field(url, "token_access_type"), "offline");
  EXPECT_EQ(field(url, "code_challenge_method"), "S256");
  EXPECT_TRUE(server->requests().empty());

  EXPECT_EQ(loadAccessToken(), "error 1000") << "nobody has approved yet";
  EXPECT_EQ(visit(redirect() + "?code=good&state=" + state()), 200);
  EXPECT_EQ(delegate.wait(3).back(), "answer came");
  EXPECT_EQ(loadAccessToken(), "linked u2");
  EXPECT_EQ(session->userIds(), (std::vector<std::string>{"u1", "u2"}));
  EXPECT_FALSE(client->requestTokenLoaded());

  ASSERT_EQ(server->requests().size(), 1U);
  const std::string form = server->requests().front().body;
  EXPECT_EQ(SignIn::challengeFor(field(form, "code_verifier")), field(url, "code_challenge"));
  EXPECT_EQ(field(form, "redirect_uri"), field(url, "redirect_uri"));
  EXPECT_EQ(form.find("secret"), std::string::npos);
}

TEST_F(BrowserSignIn, TakesOnlyTheAnswerToItsOwnQuestion) {
  const auto serving = serveTokens();
  ASSERT_EQ(begin(), "sign-in begun");
  const std::string oldState = state();
  ASSERT_EQ(begin(), "sign-in begun");
  const std::string origin = redirect().substr(0, redirect().rfind('/'));
  EXPECT_EQ(visit(redirect() + "?code=good&state=" + oldState), 400);
  EXPECT_EQ(visit(redirect() + "?code=good"), 400);
  EXPECT_EQ(visit(redirect() + "?state=" + state()), 400);
  EXPECT_EQ(visit(redirect() + "?code=two%0Alines&state=" + state()), 400);
  EXPECT_EQ(visit(origin + "/favicon.ico"), 404);
  EXPECT_EQ(loadAccessToken(), "error 1000");
  EXPECT_TRUE(server->requests().empty());
}

TEST_F(BrowserSignIn, WhatCannotSucceedAnyMoreEndsIt) {
  const auto serving = serveTokens();
  ASSERT_EQ(begin(), "sign-in begun");
  const std::string address = redirect();
  const auto port = address.substr(address.rfind(':') + 1);
  ::setenv("KZV_SIGN_IN_PORT", port.substr(0, port.find('/')).c_str(), 1);
  ASSERT_EQ(begin(), "sign-in begun");
  EXPECT_EQ(redirect(), address) << "one that was given up has given its port back";
  EXPECT_EQ(visit(redirect() + "?error=access_denied&state=" + state()), 200);
  EXPECT_EQ(delegate.wait(3).back(), "answer came");
  EXPECT_EQ(loadAccessToken(), "error 403");
  EXPECT_FALSE(client->requestTokenLoaded());
  ASSERT_EQ(begin(), "sign-in begun");
  EXPECT_EQ(redirect(), address);
  EXPECT_FALSE(client->useAuthorizationCode("  "));
  EXPECT_FALSE(client->useAuthorizationCode("good\r\nX: y"));
  EXPECT_TRUE(client->useAuthorizationCode(" bad\n"));
  EXPECT_EQ(loadAccessToken(), "error 400");
  EXPECT_FALSE(client->requestTokenLoaded());
  EXPECT_EQ(loadAccessToken(), "error 400") << "no sign-in is under way";
  ASSERT_EQ(begin(), "sign-in begun");
  EXPECT_EQ(redirect(), address);
}

}  // namespace
