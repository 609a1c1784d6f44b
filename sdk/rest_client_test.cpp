#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "sdk/DBError.h"
#include "sdk/SessionInternals.h"
#include "sdk/testing/ClientFixture.h"
#include "sdk/wire/NetworkThread.h"
#include "sdk/wire/PageSequence.h"

namespace kzv::sdk {

namespace {

using Notes = std::vector<std::string>;

/// Accepts one connection and hands it to `serve`, on a thread of its own.
class RawListener {
 public:
  explicit RawListener(std::function<void(int)> serve) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const bool isOpen = ::bind(socket_, generic, length) == 0 && ::listen(socket_, 1) == 0 &&
                        ::getsockname(socket_, generic, &length) == 0;
    EXPECT_TRUE(isOpen);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, serve = std::move(serve)] {
      pollfd wait{socket_, POLLIN, 0};
      const int connection = ::poll(&wait, 1, 20'000) > 0 ? ::accept(socket_, nullptr, nullptr) : -1;
      if (connection < 0) return;
      serve(connection);
      ::close(connection);
    });
  }
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;
  ~RawListener() {
    join();
    ::close(socket_);
  }
  int port() const { return port_; }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  const int socket_;
  int port_ = 0;
  std::thread thread_;
};
constexpr const char* metadataRoute = "/2/files/get_metadata";
constexpr const char* listRoute = "/2/files/list_folder";
constexpr const char* continueRoute = "/2/files/list_folder/continue";
constexpr const char* tokenRoute = "/oauth2/token";

class RestClient : public ClientFixture {
 protected:
  /// The access token that a process which starts now would use; "unreadable", or empty without one.
  static std::string storedToken() {
    const DBSession other("key", "", kDBRootDropbox);
    if (other.storeError()) return "unreadable";
    const auto authorization = const_cast<DBSession&>(other).internals().authorization(userId);
    return authorization ? authorization->accessToken : "";
  }
  static std::string hexed(const std::string& text) {
    std::string name;
    for (const char c : text) {
      char code[4];
      std::snprintf(code, sizeof code, "_%02x", static_cast<unsigned>(c));
      std::isalnum(static_cast<unsigned char>(c)) ? name += c : name += code;
    }
    return name;
  }
  static std::string childrenOf(const DBMetadata& folder) {
    std::string text;
    for (const auto& child : *folder.contents()) text += child->path() + " ";
    return text;
  }
};

TEST_F(RestClient, PathsComeInTheServicesLetterCaseWhateverWasTyped) {
  const auto serving = serve([](const ScriptedRequest& request) {
    const auto asks = [&](const char* path) { return request.body.find(path) != std::string::npos; };
    if (request.route == metadataRoute && asks("\"/A\"")) return jsonReply(folderJson("/a"));
    if (request.route == metadataRoute && asks("\"/A/x\"")) return jsonReply(folderJson("/a/X"));
    if (request.route == metadataRoute && asks("\"/gone\"")) return errorReply(409, {"path", "not_found"});
    // The folders above an item are shown in lower case, which is the service's right.
    if (request.route == metadataRoute)
      return jsonReply(folderJson(asks("gone") ? "/GONE/DOCS" : "/a/x/DOCS"));
    if (request.route == continueRoute) return jsonReply(pageJson(fileJson("/X/docs/a.txt"), "c2"));
    return jsonReply(pageJson(folderJson("/x/docs/Zoo") + "," + fileJson("/x/docs/B.txt"), "c1", true));
  });
  struct Case {
    const char* name;
    const char* typed;
    std::optional<std::string> folder;
    const char* path;
    int lookUps;
  };
  const Case cases[] = {{"as the service shows it", "/a/x/docs", {}, "/a/x/DOCS", 1},
                        {"the folder's case is known", "/A/x/Docs/", "/a/X", "/a/X/DOCS", 1},
                        {"typed otherwise", "/A/x/Docs/", {}, "/a/X/DOCS", 3},
                        {"a folder that is not to be seen", "/gone/docs", {}, "/gone/DOCS", 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const int before = server->count(metadataRoute);
    const auto load = [&](DBRestClient& own) { own.loadMetadata(c.typed, {.folderPath = c.folder}); };
    ASSERT_EQ(outcome(load), std::string("metadata ") + c.path);
    const std::string path(c.path);
    EXPECT_EQ(childrenOf(*delegate.lastMetadata()), path + "/a.txt " + path + "/B.txt " + path + "/Zoo ");
    EXPECT_EQ(server->count(metadataRoute) - before, c.lookUps);
  }
  for (const ScriptedRequest& request : server->requests()) {
    EXPECT_EQ(request.headers.at("authorization"), "Bearer token-1");
    EXPECT_EQ(request.headers.at("content-type"), "application/json");
  }
}

TEST_F(RestClient, ListingChangedMeanwhileShowsEachItemOnceAndNoDeletedOnes) {
  const auto serving = serve([](const ScriptedRequest& request) {
    if (request.route != continueRoute) {
      return jsonReply(pageJson(fileJson("/a", "111111111") + "," + fileJson("/b"), "c", true));
    }
    return jsonReply(pageJson(fileJson("/a", "222222222") +
                              R"(,{".tag":"deleted","name":"b","path_lower":"/b","path_display":"/b"})"));
  });
  ASSERT_EQ(outcomeOf("/"), "metadata /");
  EXPECT_TRUE(delegate.lastMetadata()->isDirectory());
  EXPECT_EQ(server->count(metadataRoute), 0) << "the root has no record of its own";
  ASSERT_EQ(childrenOf(*delegate.lastMetadata()), "/a ");
  EXPECT_EQ(delegate.lastMetadata()->contents()->front()->rev(), "222222222");
}

TEST_F(RestClient, WhatThePathHoldsDecidesTheOutcome) {
  struct Case {
    const char* name;
    ScriptedReply record, listing;
    const char* outcome;
  };
  const Case cases[] = {
      {"file", jsonReply(fileJson("/q")), errorReply(409, {"path", "not_folder"}), "metadata /q"},
      {"deleted", jsonReply(R"({".tag":"deleted","name":"q","path_lower":"/q","path_display":"/q"})"),
       errorReply(409, {"path", "not_found"}), "metadata /q"},
      {"never existed", errorReply(409, {"path", "not_found"}), errorReply(409, {"path", "not_found"}),
       "error 404"},
      {"deleted between the two requests", jsonReply(folderJson("/q")),
       errorReply(409, {"path", "not_found"}), "error 404"},
      {"record is no JSON", jsonReply("<html>"), jsonReply(pageJson("")), "error 101"},
      {"name leads elsewhere",
       jsonReply(R"({".tag":"file","name":"../../etc","path_lower":"/q","rev":"111111111","size":1})"),
       jsonReply(pageJson("")), "error 101"},
      {"size is no number",
       jsonReply(R"({".tag":"file","name":"q","path_lower":"/q","rev":"111111111","size":"1"})"),
       jsonReply(pageJson("")), "error 101"},
      {"page without a cursor", jsonReply(folderJson("/q")), jsonReply(R"({"entries":[],"has_more":false})"),
       "error 101"},
      {"page with a broken entry", jsonReply(folderJson("/q")), jsonReply(pageJson("7")), "error 101"},
      {"half a JSON text", jsonReply(folderJson("/q")), jsonReply(R"({"entries":[{)"), "error 101"},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest& request) {
    return request.route == metadataRoute ? current.load()->record : current.load()->listing;
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    EXPECT_EQ(outcomeOf("/q"), c.outcome);
  }
}

TEST_F(RestClient, ErrorSaysWhatFailedWhereAndWhy) {
  const auto serving = serve([](const ScriptedRequest&) { return errorReply(409, {"path", "not_found"}); });
  ASSERT_EQ(outcomeOf("/Docs/gone"), "error 404");
  const NSErrorRef error = delegate.lastError();
  EXPECT_EQ(error->domain(), DBErrorDomain);
  EXPECT_EQ(error->localizedDescription(), "Could not load \"/Docs/gone\": there is nothing at this path.");
  EXPECT_EQ(*textOf(error->detail(DBErrorPathKey)), "/Docs/gone");
  EXPECT_EQ(*textOf(error->detail(DBErrorSummaryKey)), "path/not_found/..");
  EXPECT_EQ(*textOf(error->detail(DBErrorRequestIdKey)), "scripted");
  EXPECT_EQ(as<NSNumber>(error->detail(DBErrorHttpStatusKey))->int64Value(), 409);
}

TEST_F(RestClient, UnacceptablePathsFailWithoutARequest) {
  const auto serving = serve([](const ScriptedRequest&) { return jsonReply(pageJson("")); });
  std::string deep;
  for (int level = 0; level < 513; ++level) deep += "/a";
  const std::string paths[] = {"", "docs", "id:abc", "/a\xff", std::string("/a\0b", 4), deep};
  for (const std::string& path : paths) EXPECT_EQ(outcomeOf(path), "error 400") << path;
  EXPECT_TRUE(server->requests().empty());
}

// Each row's trouble happens to the first requests of a listing; afterwards the server is well.
TEST_F(RestClient, PassingTroubleIsSurvivedAndLastingTroubleIsReported) {
  ScriptedReply cut{.cutBeforeAnswer = true};
  ScriptedReply truncated = jsonReply(pageJson(fileJson("/a")));
  truncated.cutAfter = 20;
  ScriptedReply told = jsonReply(R"({"error":{"reason":{".tag":"too_many_requests"},"retry_after":0}})", 429);
  told.headers.emplace_back("Retry-After: 0");
  ScriptedReply toldTooLong{503, "", {"Retry-After: 301"}};
  struct Case {
    const char* name;
    ScriptedReply trouble;
    int times;
    const char* outcome;
    int requests;
  };
  const Case cases[] = {
      {"one 500", {500, "<html>"}, 1, "metadata /", 2},
      {"two cut connections", cut, 2, "metadata /", 3},
      {"one truncated answer", truncated, 1, "metadata /", 2},
      {"four waits as told", told, 4, "metadata /", 5},
      {"always told to wait", told, 99, "error 503", 5},
      {"told to wait for too long", toldTooLong, 99, "error 503", 1},
      {"always 502", {502, ""}, 99, "error 502", 3},
      {"always cut", cut, 99, "error -52", 3},
      {"400 is never repeated", {400, "Error in call to API function"}, 99, "error 400", 1},
  };
  std::atomic<int> troubles{0};
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest&) {
    return troubles++ < current.load()->times ? current.load()->trouble : jsonReply(pageJson(""));
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    troubles = 0;
    const int before = server->count(listRoute);
    EXPECT_EQ(outcomeOf("/"), c.outcome);
    // libcurl itself sends again what it sent on a kept connection that turns out to be dead.
    EXPECT_GE(server->count(listRoute) - before, c.requests);
    EXPECT_LE(server->count(listRoute) - before, c.requests + 1);
  }
}

TEST_F(RestClient, LostCursorStartsTheListingAgainOnce) {
  std::atomic<bool> lost{false};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route != continueRoute) return jsonReply(pageJson(fileJson("/a"), "c", true));
    return lost.exchange(true) ? jsonReply(pageJson(fileJson("/b"))) : errorReply(409, {"reset"});
  });
  ASSERT_EQ(outcomeOf("/"), "metadata /");
  EXPECT_EQ(childrenOf(*delegate.lastMetadata()), "/a /b ");
  EXPECT_EQ(server->count(listRoute), 2);
}

TEST_F(RestClient, SilentOrEndlessAnswersBecomeAnError) {
  using std::chrono::milliseconds, std::chrono::seconds;
  const auto serving = serve([](const ScriptedRequest&) { return ScriptedReply{.stall = true}; });
  NetworkThread::setTimeouts(seconds(30), seconds(1));
  EXPECT_EQ(outcomeOf("/"), "error -28");
  // Bytes that trickle in are no silence: the request as a whole has its time.
  NetworkThread::setTimeouts(seconds(30), seconds(3600), milliseconds(50));
  EXPECT_EQ(outcomeOf("/"), "error -28");
  NetworkThread::setTimeouts(seconds(30), seconds(60));
}

TEST_F(RestClient, AListingThatDoesNotEndBecomesAnError) {
  struct Case {
    const char* name;
    std::string entries;
    std::function<std::string(int)> cursor;  // of that page
    int pages;                               // that are asked for at most
  };
  const auto same = [](int) { return "c"; };
  const auto fresh = [](int page) { return "c" + std::to_string(page); };
  const auto none = [](int page) { return page == 1 ? "c" : ""; };
  const Case cases[] = {{"same cursor again", fileJson("/a"), same, 3},
                        {"no cursor", fileJson("/a"), none, 3},
                        {"same cursor, nothing in the page", "", same, 3},
                        {"new cursors, nothing in the pages", "", fresh, 110}};
  std::atomic<const Case*> current{nullptr};
  std::atomic<int> pages{0};
  const auto serving = serve([&](const ScriptedRequest&) {
    const int page = ++pages;
    const Case& c = *current.load();
    const bool hasMore = page < 1000;
    return jsonReply(pageJson(c.entries, c.cursor(page), hasMore));
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    pages = 0;
    ASSERT_EQ(outcomeOf("/"), "error 101");
    EXPECT_NE(delegate.lastError()->localizedDescription().find("does not end"), std::string::npos);
    EXPECT_LE(pages, c.pages);
  }
  // The change feed, which its user follows page by page.
  pages = 0;
  current = &cases[0];
  std::string line;
  for (int page = 0; page < 10 && !line.starts_with("error"); ++page)
    line = outcome([](DBRestClient& own) { own.loadDelta("c"); });
  EXPECT_EQ(line, "error 101");
  PageSequence large(3);
  EXPECT_EQ(large.problemWith(3, true, "a"), nullptr);
  EXPECT_NE(large.problemWith(1, false, "b"), nullptr) << "more entries than are accepted";
}

// As the first bytes of a connection tell it: RFC 8446, 4.1.2 and 4.2.1.
TEST_F(RestClient, NoConnectionIsOfferedBelowTls12) {
  const std::string lenient = home.path() + "/openssl.cnf";  // what a system might allow
  std::ofstream(lenient) << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\n"
                            "MinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n";
  ::setenv("OPENSSL_CONF", lenient.c_str(), 1);
  std::string hello;
  RawListener listener([&](int connection) {
    hello.resize(4096);
    const ssize_t count = ::recv(connection, hello.data(), hello.size(), 0);
    hello.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  });
  const auto serving = serve([](const ScriptedRequest&) { return ScriptedReply{}; });
  ::setenv("KZV_SERVICE_URL", ("https://127.0.0.1:" + std::to_string(listener.port())).c_str(), 1);
  session = std::make_shared<DBSession>("key", "", kDBRootDropbox);
  link({userId, "token-1", "", 0});  // tokens are bound to their origin
  client = makeClient();
  outcomeOf("/");
  listener.join();
  const auto versions = hello.find(std::string("\x00\x2b\x00", 3));
  ASSERT_NE(versions, std::string::npos) << "no supported_versions in " << hello.size() << " bytes";
  const std::size_t length = static_cast<unsigned char>(hello.at(versions + 4));
  for (std::size_t at = versions + 5; at < versions + 5 + length; at += 2) {
    EXPECT_GE(static_cast<unsigned char>(hello.at(at + 1)), 3) << "TLS 1." << int(hello.at(at + 1)) - 1;
  }
}

TEST_F(RestClient, ExpiredTokenIsRenewedOnceForAllWhoNeedIt) {
  constexpr int clients = 8;
  std::atomic<int> refused{0};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == tokenRoute) {
      return jsonReply(R"({"access_token":"token-2","token_type":"bearer","expires_in":14400})");
    }
    if (request.headers.at("authorization") != "Bearer token-2") {
      ++refused;
      return errorReply(401, {"expired_access_token"});
    }
    return jsonReply(pageJson(""));
  });
  std::vector<std::shared_ptr<DBRestClient>> many;
  callbacks.run([&] {
    for (int i = 0; i < clients; ++i) many.push_back(makeClient());
    for (const auto& each : many) each->loadMetadata("/");
  });
  EXPECT_EQ(delegate.wait(clients), Notes(clients, "metadata /"));
  EXPECT_GE(refused, 1);
  EXPECT_EQ(server->count(tokenRoute), 1);
  const auto requests = server->requests();
  const auto refresh = std::find_if(requests.begin(), requests.end(),
                                    [](const auto& request) { return request.route == tokenRoute; });
  EXPECT_EQ(refresh->body, "grant_type=refresh_token&refresh_token=refresh-1&client_id=key");
  session->waitForBackgroundWork(20);
  EXPECT_EQ(DBSession("key", "", kDBRootDropbox).userIds(), Notes{userId});
  callbacks.run([&] { many.clear(); });
}

TEST_F(RestClient, TokenThatEndsSoonIsRenewedBeforeItIsUsed) {
  const auto serving = serve([](const ScriptedRequest& request) {
    if (request.route == tokenRoute) return jsonReply(R"({"access_token":"token-2","expires_in":14400})");
    return request.headers.at("authorization") == "Bearer token-2" ? jsonReply(pageJson(""))
                                                                   : errorReply(401, {"user_suspended"});
  });
  link({userId, "token-1", "refresh-1", ::time(nullptr) + 200});
  EXPECT_EQ(outcomeOf("/"), "metadata /");
  EXPECT_EQ(outcomeOf("/"), "metadata /");
  EXPECT_EQ(server->count(tokenRoute), 1);
}

TEST_F(RestClient, WithdrawnAuthorizationIsReportedOncePerLinkingAndAfterTheFailure) {
  struct Case {
    const char* name;
    ScriptedReply refusal, renewal;
    Notes notes;
  };
  const Case cases[] = {
      {"token withdrawn",
       errorReply(401, {"invalid_access_token"}),
       {},
       {"error 401", "authorization failure u1", "error 401"}},
      {"renewal withdrawn",
       errorReply(401, {"expired_access_token"}),
       jsonReply(R"({"error":"invalid_grant","error_description":"x"})", 400),
       {"error 401", "authorization failure u1", "error 401"}},
      {"renewal impossible now",
       errorReply(401, {"expired_access_token"}),
       jsonReply("{}", 400),
       {"error 400", "error 400"}},
      {"renewed and still refused",
       errorReply(401, {"expired_access_token"}),
       jsonReply(R"({"access_token":"token-2","expires_in":14400})"),
       {"error 401", "error 401"}},
      {"scope missing", errorReply(401, {"missing_scope"}), {}, {"error 401", "error 401"}},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest& request) {
    return request.route == tokenRoute ? current.load()->renewal : current.load()->refusal;
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    link({userId, "token-1", "refresh-1", 0});  // a new linking may fail anew
    const std::size_t before = delegate.notes().size();
    loadMetadata("/");
    delegate.wait(before + c.notes.size() - 1);
    loadMetadata("/");
    const auto all = delegate.wait(before + c.notes.size());
    EXPECT_EQ(Notes(all.begin() + static_cast<long>(before), all.end()), c.notes);
    EXPECT_TRUE(
        session->hasUserId(userId));  // what becomes of the account is the session delegate's business
  }
}

// Another session on the same store stands for another process.
TEST_F(RestClient, BeforeAnAccountIsGivenUpTheStoreIsAskedForANewerToken) {
  using Change = std::function<void(DBSession&)>;
  const auto storeFile = [&] { return home.path() + "/data/credentials"; };
  const Change relink = [](DBSession& other) {
    other.linkCredential({userId, "token-9", "refresh-9", 0}, nullptr);
  };
  struct Case {
    const char* name;
    const char* refusal;
    Change elsewhere;
    Notes notes;
    const char* storedToken;  // afterwards, once the delegate has unlinked what was reported as lost
  };
  const Case cases[] = {
      {"nothing happened",
       "invalid_access_token",
       [](DBSession&) {},
       {"error 401", "authorization failure u1"},
       ""},
      {"linked anew", "invalid_access_token", relink, {"metadata /"}, "token-9"},
      {"linked anew, and the old refresh token is dead",
       "expired_access_token",
       relink,
       {"metadata /"},
       "token-9"},
      {"renewed",
       "invalid_access_token",
       [](DBSession& other) {
         other.linkCredential({userId, "token-9", "refresh-1", 0}, nullptr);
       },
       {"metadata /"},
       "token-9"},
      {"unlinked",
       "invalid_access_token",
       [](DBSession& other) { other.unlinkUserId(userId); },
       {"error 401", "authorization failure u1"},
       ""},
      {"the store cannot be read",
       "invalid_access_token",
       [&](DBSession&) {
         std::filesystem::rename(storeFile() + "/key_40" + hexed(server->url()) + "/accounts.json",
                                 home.path() + "/away");
         std::filesystem::create_directory(storeFile() + "/key_40" + hexed(server->url()) + "/accounts.json");
       },
       {"error 401"},
       "unreadable"},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == tokenRoute) return jsonReply(R"({"error":"invalid_grant"})", 400);
    if (request.route == "/2/auth/token/revoke") return jsonReply("null");
    return request.headers.at("authorization") == "Bearer token-9"
               ? jsonReply(pageJson(""))
               : errorReply(401, {current.load()->refusal});
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    link({userId, "token-1", "refresh-1", 0});
    {
      DBSession other("key", "", kDBRootDropbox);
      c.elsewhere(other);
      other.waitForBackgroundWork(20);
    }
    const std::size_t before = delegate.notes().size();
    loadMetadata("/");
    const auto all = delegate.wait(before + c.notes.size());
    callbacks.run([] {});
    EXPECT_EQ(Notes(all.begin() + static_cast<long>(before), all.end()), c.notes);
    EXPECT_EQ(delegate.notes().size(), all.size());
    EXPECT_EQ(session->isAuthorizationLost(userId), c.notes.size() > 1);
    if (session->isAuthorizationLost(userId)) session->unlinkUserId(userId);
    EXPECT_EQ(session->hasUserId(userId), c.notes.size() == 1) << "it is given up only when it is lost";
    EXPECT_EQ(storedToken(), c.storedToken);
  }
}

TEST_F(RestClient, ALinkingThatIsNewerThanTheLossSurvivesIt) {
  const auto serving =
      serve([](const ScriptedRequest&) { return errorReply(401, {"invalid_access_token"}); });
  ASSERT_EQ(outcomeOf("/"), "error 401");
  EXPECT_EQ(delegate.wait(2).back(), "authorization failure u1");
  DBSession("key", "", kDBRootDropbox).linkCredential({userId, "token-9", "refresh-9", 0}, nullptr);
  session->unlinkUserId(userId);  // as the delegate does, a moment too late
  EXPECT_TRUE(session->hasUserId(userId));
  EXPECT_EQ(storedToken(), "token-9");
}

TEST_F(RestClient, ARenewedTokenReplacesNoNewerLinking) {
  const auto serving = serve([](const ScriptedRequest& request) {
    if (request.route == tokenRoute) return jsonReply(R"({"access_token":"token-2","expires_in":14400})");
    return jsonReply(pageJson(""));
  });
  link({userId, "token-1", "refresh-1", 1});
  DBSession("key", "", kDBRootDropbox).linkCredential({userId, "token-9", "refresh-9", 0}, nullptr);
  EXPECT_EQ(outcomeOf("/"), "metadata /");
  session->waitForBackgroundWork(20);
  EXPECT_EQ(server->requests().back().headers.at("authorization"), "Bearer token-2");
  EXPECT_EQ(storedToken(), "token-9");
}

TEST_F(RestClient, UnlinkingEndsTheAuthorizationOrSaysThatItLivesOn) {
  struct Case {
    const char* name;
    DBCredential credential;
    ScriptedReply revocation;  // of any token but "token-2"
    bool isRevoked;
    int renewed, asked;
  };
  const auto dead = [](const char* tag) { return errorReply(401, {tag}); };
  const std::int64_t longAgo = 1;
  const Case cases[] = {
      {"valid", {userId, "token-1", "live", 0}, jsonReply("null"), true, 0, 1},
      {"known to have expired",
       {userId, "token-1", "live", longAgo},
       dead("expired_access_token"),
       true,
       1,
       1},
      {"has expired", {userId, "token-1", "live", 0}, dead("expired_access_token"), true, 1, 2},
      {"refresh token is dead, too",
       {userId, "token-1", "dead", longAgo},
       dead("expired_access_token"),
       true,
       1,
       0},
      {"expired for good", {userId, "token-1", "", longAgo}, dead("expired_access_token"), true, 0, 1},
      {"was revoked before", {userId, "token-1", "", 0}, dead("invalid_access_token"), true, 0, 1},
      {"service in trouble", {userId, "token-1", "live", 0}, {400, "no"}, false, 0, 1},
      {"renewal in trouble", {userId, "token-1", "broken", longAgo}, jsonReply("null"), false, 1, 0},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route != tokenRoute)
      return request.headers.at("authorization") == "Bearer token-2" ? jsonReply("null")
                                                                     : current.load()->revocation;
    if (request.body.find("refresh_token=live") != std::string::npos)
      return jsonReply(R"({"access_token":"token-2","expires_in":14400})");
    if (request.body.find("refresh_token=dead") != std::string::npos)
      return jsonReply(R"({"error":"invalid_grant"})", 400);
    return ScriptedReply{400, "no"};
  });
  int renewed = 0, asked = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    link(c.credential);
    NSErrorRef error;
    EXPECT_EQ(session->unlinkAndRevoke(userId, std::chrono::seconds(20), &error), c.isRevoked);
    EXPECT_EQ(error ? error->code() : 0, c.isRevoked ? 0 : DBErrorNotRevoked);
    EXPECT_EQ(server->count(tokenRoute), renewed += c.renewed);
    EXPECT_EQ(server->count("/2/auth/token/revoke"), asked += c.asked);
    EXPECT_EQ(storedToken(), "") << "forgotten here in any case";
    if (!error) continue;
    EXPECT_TRUE(error->localizedDescription().starts_with("unlinked here, but not revoked: "));
    EXPECT_NE(error->localizedDescription().find("/account/connected_apps"), std::string::npos);
  }
}

TEST_F(RestClient, TokensAreKnownAtTheOriginThatGaveThemOnly) {
  const auto serving = serve([](const ScriptedRequest&) { return jsonReply(pageJson("")); });
  ScriptedServer elsewhere([](const ScriptedRequest&) { return jsonReply(pageJson("")); });
  const auto idsAt = [](const std::string& origin) {
    ::setenv("KZV_SERVICE_URL", origin.c_str(), 1);
    return DBSession("key", "", kDBRootDropbox).userIds();
  };
  EXPECT_EQ(idsAt(elsewhere.url()), Notes());
  EXPECT_EQ(idsAt(""), Notes()) << "the service itself";
  std::string loud = server->url();
  loud.replace(0, 4, "HTTP");
  EXPECT_EQ(idsAt(loud + "/"), Notes{userId}) << "the same origin, written otherwise";
  // What was stored before origins were is the service's own.
  const std::string old = home.path() + "/data/credentials/key";
  std::filesystem::create_directories(old);
  std::ofstream(old + "/accounts.json") << R"({"accounts":[{"account_id":"old","access_token":"t"}]})";
  EXPECT_EQ(idsAt(""), Notes{"old"});
  EXPECT_EQ(idsAt(elsewhere.url()), Notes());
}

TEST_F(RestClient, CancelledRequestsEndAtOnceAndCallNobody) {
  struct Case {
    const char* name;
    ScriptedReply reply;
  };
  const Case cases[] = {{"answer under way", {.stall = true}},
                        {"waiting as told", {429, "", {"Retry-After: 30"}}}};
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest&) { return current.load()->reply; });
  int expected = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    loadMetadata("/");
    ASSERT_TRUE(server->waitForRequests(listRoute, ++expected));
    callbacks.run([&] { client->cancelAllRequests(); });
    if (c.reply.stall) {
      EXPECT_TRUE(server->waitForDisconnect(std::chrono::seconds(1)));
    }
  }
  callbacks.run([] {});
  EXPECT_TRUE(delegate.notes().empty());
}

TEST_F(RestClient, NoCallbackArrivesAfterCancelEvenWhenTheAnswerIsThere) {
  constexpr int rounds = 20;
  const auto serving = serve([](const ScriptedRequest&) { return jsonReply(pageJson("")); });
  NotingDelegate otherDelegate;
  CallbackThread otherCallbacks;
  const auto other = makeClient();
  other->setDelegate(&otherDelegate);
  for (int round = 0; round < rounds; ++round) {
    callbacks.run([&] {
      client->loadMetadata("/");
      EXPECT_TRUE(server->waitForRequests(listRoute, 2 * round + 1));
      // When a later request of another thread has been answered, the answer to ours waits in this thread's
      // queue.
      otherCallbacks.run([&] { other->loadMetadata("/"); });
      otherDelegate.wait(static_cast<std::size_t>(round) + 1);
      client->cancelAllRequests();
    });
  }
  callbacks.run([] {});
  EXPECT_EQ(otherDelegate.notes().size(), static_cast<std::size_t>(rounds));
  EXPECT_EQ(delegate.notes(), Notes());
}

TEST_F(RestClient, DestroyingAClientOnAnotherThreadEndsItsRequests) {
  const auto serving = serve([](const ScriptedRequest&) { return jsonReply(pageJson("")); });
  for (int round = 0; round < 100; ++round) {
    auto other = makeClient();
    callbacks.run([&] { other->loadMetadata("/"); });
    other.reset();
  }
  callbacks.run([] {});
  SUCCEED();  // a callback into the destroyed client would be a report of the sanitizers
}

TEST_F(RestClient, DeltaBeginsWithTheNewestCursorAndStartsAgainWhenItIsLost) {
  const auto serving = serve([](const ScriptedRequest& request) {
    if (request.route == "/2/files/list_folder/get_latest_cursor") return jsonReply(R"({"cursor":"new"})");
    if (request.body.find("lost") != std::string::npos) return errorReply(409, {"reset"});
    if (request.body.find("busy") != std::string::npos) return ScriptedReply{429, "", {"Retry-After: 0"}};
    if (request.body.find("broken") != std::string::npos)
      return jsonReply(pageJson(fileJson("/ok") +
                                R"(,7,{".tag":"deleted","path_lower":"no path"},{"path_lower":"/no/tag"})"
                                R"(,{".tag":"file","name":"s","path_lower":"/s","size":"1"})"));
    return jsonReply(pageJson(fileJson("/Docs/A.txt") + "," + folderJson("/Docs") +
                                  R"(,{".tag":"deleted","name":"b","path_lower":"/b","path_display":"/B"},)"
                                  R"({".tag":"hologram","name":"h","path_lower":"/h"})",
                              "c2", true));
  });
  const auto delta = [&](std::optional<std::string> cursor) {
    return outcome([&](DBRestClient& own) { own.loadDelta(cursor); });
  };
  EXPECT_EQ(delta(std::nullopt), "delta reset new");
  EXPECT_EQ(delta("c1"), "delta +/docs/a.txt=/Docs/A.txt +/docs=/Docs -/b more c2");
  EXPECT_EQ(delta("lost"), "delta reset new");
  EXPECT_EQ(delta("broken"), "delta +/ok=/ok -/no/tag -/s c1")
      << "what cannot be read is dropped from the cache";
  const int before = server->count(continueRoute);
  EXPECT_EQ(delta("busy"), "error 503");
  EXPECT_EQ(server->count(continueRoute), before + 1) << "whoever polls decides when to ask again";
}

TEST_F(RestClient, AWaitForChangesEndsWithWhatTheServiceSaysAndIsNeverRepeated) {
  ScriptedReply reply;
  const auto serving = serve([&](const ScriptedRequest&) { return reply; });
  const std::string invalid = "error " + std::to_string(DBErrorInvalidResponse);
  struct Case {
    const char* name;
    ScriptedReply reply;
    std::string outcome;
  };
  const Case cases[] = {
      {"changes", jsonReply(R"({"changes":true})"), "changes 0"},
      {"none", jsonReply(R"({"changes":false,"backoff":60})"), "no changes 60"},
      {"a backoff of years", jsonReply(R"({"changes":false,"backoff":9999999})"), "no changes 3600"},
      {"a negative backoff", jsonReply(R"({"changes":true,"backoff":-1})"), "changes 0"},
      {"a lost cursor is a change", errorReply(409, {"reset"}), "changes 0"},
      {"refused", errorReply(400, {}), "error 400"},
      {"in trouble", {503, "", {"Retry-After: 0"}}, "error 503"},
      {"not understood", jsonReply(R"({"changes":1})"), invalid}};
  int requests = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    reply = c.reply;
    EXPECT_EQ(outcome([](DBRestClient& own) { own.waitForChanges("c7", std::chrono::seconds(30)); }),
              c.outcome);
    EXPECT_EQ(server->count("/2/files/list_folder/longpoll"), ++requests);
  }
  const ScriptedRequest request = server->requests().back();
  EXPECT_EQ(request.body, R"({"cursor":"c7","timeout":30})");
  EXPECT_EQ(request.headers.count("authorization"), 0U) << "the cursor says whose changes";
}

TEST_F(RestClient, AccountInformationNamesTheRightLimit) {
  struct Case {
    const char* name;
    const char* allocation;
    const char* outcome;
  };
  const Case cases[] = {
      {"individual", R"(,"allocation":{".tag":"individual","allocated":20})", "account u1 Sam  7/20"},
      {"team",
       R"(,"allocation":{".tag":"team","used":80,"allocated":90,"user_within_team_space_allocated":0})",
       "account u1 Sam  80/90"},
      {"own limit in a team",
       R"(,"allocation":{".tag":"team","used":80,"allocated":90,"user_within_team_space_allocated":30,"user_within_team_space_used_cached":6})",
       "account u1 Sam  6/30"},
      {"unknown allocation", R"(,"allocation":{".tag":"moon"})", "account u1 Sam  7/0"},
      {"largest numbers", R"(,"allocation":{".tag":"individual","allocated":9223372036854775807})",
       "account u1 Sam  7/9223372036854775807"},
      {"2^63 bytes", R"(,"allocation":{".tag":"individual","allocated":9223372036854775808})", "error 101"},
      {"-2^63 bytes", R"(,"allocation":{".tag":"individual","allocated":-9223372036854775808})", "error 101"},
      {"team used -1", R"(,"allocation":{".tag":"team","used":-1,"allocated":90})", "error 101"},
      {"a text", R"(,"allocation":{".tag":"individual","allocated":"20"})", "error 101"},
      {"no allocation", "", "error 101"}};
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == "/2/users/get_space_usage")
      return jsonReply(R"({"used":7)" + std::string(current.load()->allocation) + "}");
    return jsonReply(R"({"account_id":"u1","name":{"display_name":"Sam"}})");
  });
  for (const Case& c : cases) {
    current = &c;
    EXPECT_EQ(outcome([](DBRestClient& own) { own.loadAccountInfo(); }), c.outcome) << c.name;
  }
  for (const ScriptedRequest& request : server->requests()) {
    EXPECT_EQ(request.headers.count("content-type"), 0U) << "a route without an argument takes no form";
  }
}

TEST_F(RestClient, AdoptedTokenLinksTheAccountItBelongsTo) {
  const auto serving = serve([](const ScriptedRequest& request) {
    if (request.headers.at("authorization") == "Bearer good") return jsonReply(R"({"account_id":"u2"})");
    return errorReply(401, {"invalid_access_token"});
  });
  const auto adopt = [&](const std::string& token) {
    return outcome([&](DBRestClient& own) { own.adoptAccessToken(token); });
  };
  EXPECT_EQ(adopt(" good\n"), "linked u2");
  EXPECT_EQ(adopt(R"({"access_token":"good","refresh_token":"r","expires_in":14400})"), "linked u2");
  EXPECT_EQ(adopt("bad"), "error 401");
  EXPECT_EQ(adopt("two\r\nlines"), "error 400");
  EXPECT_EQ(adopt("{\"access_token\":"), "error 400");
  EXPECT_EQ(session->userIds(), (Notes{"u1", "u2"}));
}

}  // namespace

}  // namespace kzv::sdk
