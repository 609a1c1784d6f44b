#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <optional>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/FileLock.h"
#include "sdk/signin/SignIn.h"
#include "sdk/testing/ClientFixture.h"

namespace kzv::sdk {

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
  /// The lock file of the only store below this test's home.
  std::string storeLock() const {
    for (const auto& entry : std::filesystem::directory_iterator(home.path() + "/data/credentials"))
      return entry.path().string() + "/accounts.json.lock";
    return "";
  }
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

/// A TCP connection to the listener that says nothing; closed at the end.
Descriptor silentConnection(const std::string& url) {
  const auto colon = url.rfind(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(url.substr(colon + 1))));
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    ADD_FAILURE() << "cannot connect";
  return socket;
}

TEST(SignIn, SpareConnectionsKeepNobodyWaiting) {
  ::setenv("KZV_SIGN_IN_PORT", "0", 1);
  const SignIn signIn(true, [] {});
  const std::string url = signIn.pageAddress("", "key");
  std::vector<Descriptor> spare;
  for (int i = 0; i < 70; ++i) spare.push_back(silentConnection(field(url, "redirect_uri")));
  EXPECT_EQ(visit(field(url, "redirect_uri") + "?error=access_denied&state=" + field(url, "state")), 200);
  char byte = 0;  // the page came while spare connections were still waited for: the youngest is open
  EXPECT_EQ(::recv(spare.back().number(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(SignIn, BothLoopbackAddressesAreTakenOrAnotherPort) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const Descriptor other(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::bind(other.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    GTEST_SKIP() << "no IPv6 here";
  ASSERT_EQ(::listen(other.number(), 1), 0);
  socklen_t size = sizeof address;
  ::getsockname(other.number(), reinterpret_cast<sockaddr*>(&address), &size);
  const std::string taken = std::to_string(ntohs(address.sin6_port));
  ::setenv("KZV_SIGN_IN_PORT", taken.c_str(), 1);
  EXPECT_EQ(field(SignIn(true, [] {}).pageAddress("", "key"), "redirect_uri"), "")
      << "the page shows the code";
  ::setenv("KZV_SIGN_IN_PORT", "0", 1);
  const SignIn signIn(true, [] {});
  std::string redirect = field(signIn.pageAddress("", "key"), "redirect_uri");
  EXPECT_EQ(redirect.find(':' + taken + '/'), std::string::npos);
  redirect.replace(redirect.find("localhost"), 9, "[::1]");
  EXPECT_EQ(visit(redirect), 400) << "it listens on the other address, too";
}

TEST(SignIn, AnotherUserOfTheMachineCannotFinishIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ::setenv("KZV_SIGN_IN_PORT", "0", 1);
  const SignIn signIn(true, [] {});
  const std::string url = signIn.pageAddress("", "key");
  const std::string request =
      "GET /dropbox-sign-in?code=stolen&state=" + field(url, "state") + " HTTP/1.1\r\n\r\n";
  const std::string redirect = field(url, "redirect_uri");
  const pid_t child = ::fork();
  if (child == 0) {
    constexpr uid_t nobody = 65534;
    if (::setresuid(nobody, nobody, nobody) != 0) ::_exit(2);
    const Descriptor connection = silentConnection(redirect);
    char answer[64] = {};
    ::send(connection.number(), request.data(), request.size(), 0);
    const ssize_t count = ::recv(connection.number(), answer, sizeof answer - 1, 0);
    ::_exit(count > 0 && std::string(answer).starts_with("HTTP/1.1 403") ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(signIn.state(), SignIn::State::waiting);
  EXPECT_EQ(visit(redirect + "?code=own&state=" + field(url, "state")), 200);
}

TEST_F(BrowserSignIn, EndsWhenItHasTakenTooLong) {
  const auto serving = serveTokens();
  SignIn::setTimeLimit(std::chrono::milliseconds(1));
  callbacks.run([&] { client->loadRequestToken(); });
  auto notes = delegate.wait(2);
  std::sort(notes.begin(), notes.end());
  EXPECT_EQ(notes, (std::vector<std::string>{"answer came", "sign-in begun"}));
  SignIn::setTimeLimit(std::chrono::minutes(10));
  EXPECT_EQ(visit(redirect() + "?code=good&state=" + state()), 400);
  EXPECT_FALSE(client->useAuthorizationCode("good"));
  EXPECT_EQ(loadAccessToken(), "error 1001");
  EXPECT_FALSE(client->requestTokenLoaded());
  EXPECT_TRUE(server->requests().empty());
}

TEST_F(BrowserSignIn, WhatWasGivenUpWhileTheStoreWasBusyIsNotLinked) {
  const auto serving = serveTokens();
  ASSERT_EQ(begin(), "sign-in begun");
  EXPECT_EQ(visit(redirect() + "?code=good&state=" + state()), 200);
  EXPECT_EQ(delegate.wait(2).back(), "answer came");
  std::optional<FileLock> busy(std::in_place, storeLock(), std::chrono::seconds(5));
  ASSERT_TRUE(busy->isHeld());
  callbacks.run([&] { client->loadAccessToken(); });
  ASSERT_TRUE(server->waitForRequests("/oauth2/token", 1));
  client->withdrawSignIn();
  busy.reset();
  EXPECT_TRUE(server->waitForRequests("/2/auth/token/revoke", 1)) << "nobody could revoke these tokens later";
  EXPECT_TRUE(delegate.wait(3).back().starts_with("error "));
  EXPECT_EQ(session->userIds(), std::vector<std::string>{userId});
  EXPECT_EQ(DBSession("key", "", kDBRootDropbox).userIds(), std::vector<std::string>{userId});
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

}  // namespace kzv::sdk
