// Linking an account in the browser: the helper and the plug-in in this process, and kzv as a person uses it.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

#include <curl/curl.h>
#include <sys/stat.h>

#include "accounts/DBAuthHelperOSXfix.h"
#include "accounts/DesktopClient.h"
#include "core/KZVConstants.h"
#include "foundation/FileLock.h"
#include "foundation/NSApplication.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/NSWorkspace.h"
#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "tests/PluginFixture.h"

namespace fs = std::filesystem;
namespace json = boost::json;
using namespace std::chrono_literals;

namespace {

struct Visit {
  long status = 0;      // 0: nobody answered
  std::string address;  // where the redirects ended
  std::string page;
};

/// What a browser does with an address, redirects followed.
Visit visit(const std::string& url) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), &curl_easy_cleanup);
  Visit result;
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "*");
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(easy.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &result.page);
  curl_easy_setopt(
      easy.get(), CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t, std::size_t size, std::string* page) {
        page->append(bytes, size);
        return size;
      });
  if (curl_easy_perform(easy.get()) != CURLE_OK) return result;
  char* address = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &result.status);
  curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &address);
  result.address = address;
  return result;
}

/// A field of an address's query, as it stands there.
std::string field(const std::string& url, const std::string& name) {
  const auto begin = url.find(name + "=");
  if (begin == std::string::npos) return {};
  const auto first = begin + name.size() + 1;
  return url.substr(first, url.find('&', first) - first);
}

std::string decoded(const std::string& text) {
  int length = 0;
  char* plain = curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length);
  std::string result(plain, static_cast<std::size_t>(length));
  curl_free(plain);
  return result;
}

/// A home for the person's own files, in place before the plug-in starts.
struct OwnHome {
  OwnHome() {
    setenv("HOME", userHome.path().c_str(), 1);
    setenv("KZV_SIGN_IN_PORT", "0", 1);
  }
  void writeInformation(const std::string& text) const {
    fs::create_directories(userHome.path() + "/.dropbox");
    std::ofstream(userHome.path() + "/.dropbox/info.json") << text;
  }
  TemporaryFolder userHome;
};

struct HomeWithDesktopClient : OwnHome {
  HomeWithDesktopClient() { writeInformation(R"({"personal":{"path":"/home/ada/Box","host":1},"x":[]})"); }
};

/// The plug-in, its helper's news, and the pages that it would have shown. The main queue runs while a test
/// waits.
template <class Home>
class LinkingTest : protected Home, public PluginTest {
 protected:
  LinkingTest() {
    const auto wake = [] { NSRunLoop::mainRunLoop()->stop(); };
    NSWorkspace::sharedWorkspace().setOpener([this, wake](const std::string& url) {
      pages.update([&](std::vector<std::string>& all) { all.push_back(url); });
      wake();
      return true;
    });
    auto& center = NSNotificationCenter::defaultCenter();
    center.addObserver(this, DBAuthHelperOSXStateChangedNotification, helper().get(),
                       [this, wake](const NSNotification& step) {
                         const id error = step.userInfo ? step.userInfo->objectForKey("error") : nullptr;
                         const auto* reason = as<NSError>(error.get());
                         steps.update([&](std::vector<std::string>& all) {
                           all.push_back(reason ? "error " + std::to_string(reason->code()) : "step");
                         });
                         wake();
                       });
    center.addObserver(this, AttachedPluginsDidChangeNotification, nullptr,
                       [wake](const NSNotification&) { wake(); });
  }
  ~LinkingTest() override {
    NSNotificationCenter::defaultCenter().removeObserver(this);
    NSWorkspace::sharedWorkspace().setOpener(nullptr);
  }

  static const std::shared_ptr<DBAuthHelperOSXfix>& helper() { return DBAuthHelperOSXfix::sharedHelper(); }
  static KZVDropboxFSClass& plugin() { return KZVDropboxFSClass::shared(); }
  std::string page() const { return pages.get().back(); }

  /// Serves the main queue until `condition` holds; false after `patience`.
  template <class Condition>
  static bool waitUntil(Condition condition) {
    const auto deadline = NSRunLoop::Clock::now() + patience;
    while (!condition()) {
      if (NSRunLoop::Clock::now() >= deadline) return false;
      NSRunLoop::mainRunLoop()->waitUntilDate(deadline);
    }
    return true;
  }
  /// The news since the last call, once there are `count` and what was under way on the service thread and
  /// the main queue has had its turn.
  std::vector<std::string> news(std::size_t count) {
    waitUntil([&] { return steps.get().size() >= count; });
    KZVDropboxFileManager::dropboxThread()->perform([] {}, true);
    NSRunLoop::mainRunLoop()->runUntilDate(NSRunLoop::Clock::now());
    return steps.update([](std::vector<std::string>& all) { return std::exchange(all, {}); });
  }
  void approveAs(const std::string& email) { standIn.settings({{"approve", "auto"}, {"approve_as", email}}); }
  static void activate() {
    NSNotification notification;
    notification.name = NSApplicationDidBecomeActiveNotification;
    NSNotificationCenter::defaultCenter().post(notification);
  }
  std::string storeLock() const {
    for (const auto& entry : fs::directory_iterator(home.path() + "/data/credentials"))
      return entry.path().string() + "/accounts.json.lock";
    return "";
  }
  /// What a process that starts now would find.
  static std::vector<std::string> storedAccounts() {
    return DBSession(KZVDropboxFSAppKey(), "", kDBRootDropbox).userIds();
  }
  std::string settingsSuite() const {
    for (const auto& entry : fs::directory_iterator(home.path() + "/config"))
      if (entry.path().extension() == ".defaults") return entry.path().stem();
    return "none";
  }
  std::string signInAs(const std::string& email) {
    approveAs(email);
    KZVDropboxFS::linkDropbox();
    news(2);
    visit(page());
    news(2);
    return plugin().linkedAccountIds().back();
  }

  Guarded<std::vector<std::string>> steps;
  Guarded<std::vector<std::string>> pages;
};

using SignInTest = LinkingTest<OwnHome>;
using SignInWithDesktopClientTest = LinkingTest<HomeWithDesktopClient>;

}  // namespace

TEST_F(SignInTest, EachStepIsToldOnceHoweverThePersonComesBack) {
  enum class Do {
    begin,
    beginTwice,
    approve,
    refuse,
    activate,
    answerWithWrongState,
    failTokensOnce,
    delayTokens
  };
  using News = std::vector<std::string>;
  const News none;
  const News asked{"step", "step"};
  const News linked{"step", "step"};
  const News pending{"step", "error 1000"};
  struct Case {
    const char* name;
    std::vector<std::pair<Do, News>> script;
    bool isLinked;
    int exchanges;  // requests for tokens
  };
  const Case cases[] = {
      {"nobody signs in", {{Do::activate, none}}, false, 0},
      {"approved", {{Do::begin, asked}, {Do::approve, linked}, {Do::activate, none}}, true, 1},
      {"back before the approval",
       {{Do::begin, asked}, {Do::activate, pending}, {Do::activate, pending}, {Do::approve, linked}},
       true,
       1},
      {"back twice after the approval",
       {{Do::begin, asked},
        {Do::delayTokens, none},
        {Do::approve, {"step"}},
        {Do::activate, {"step", "error 1000", "step"}}},
       true,
       1},
      {"twice quickly", {{Do::beginTwice, asked}, {Do::approve, linked}}, true, 1},
      {"begun anew", {{Do::begin, asked}, {Do::begin, asked}, {Do::approve, linked}}, true, 1},
      {"refused, then begun anew",
       {{Do::begin, asked},
        {Do::refuse, {"step", "error 403"}},
        {Do::activate, none},
        {Do::begin, asked},
        {Do::approve, linked}},
       true,
       1},
      {"wrong state",
       {{Do::begin, asked}, {Do::answerWithWrongState, none}, {Do::activate, pending}},
       false,
       0},
      {"tokens fail once",
       {{Do::begin, asked},
        {Do::failTokensOnce, none},
        {Do::approve, {"step", "error 500"}},
        {Do::activate, linked}},
       true,
       2},
  };
  const std::map<Do, std::function<void()>> actions{
      {Do::begin, [] { KZVDropboxFS::linkDropbox(); }},
      {Do::beginTwice,
       [] {
         KZVDropboxFileManager::dropboxThread()->perform(
             [] {
               helper()->authenticate();
               EXPECT_TRUE(helper()->isLoading());
               helper()->authenticate();
             },
             false);
       }},
      {Do::approve,
       [this] {
         approveAs("bob@example.com");
         EXPECT_EQ(visit(page()).status, 200);
       }},
      {Do::refuse,
       [this] {
         standIn.settings({{"approve", "deny"}});
         EXPECT_EQ(visit(page()).status, 200);
       }},
      {Do::activate, [] { activate(); }},
      {Do::answerWithWrongState,
       [this] {
         const std::string redirect = decoded(field(page(), "redirect_uri"));
         EXPECT_EQ(visit(redirect + "?code=stolen&state=guessed").status, 400);
       }},
      {Do::failTokensOnce,
       [this] {
         standIn.fault({{"route", "oauth2/token"}, {"times", 1}, {"status", 500}, {"body", "no"}});
       }},
      {Do::delayTokens,
       [this] {
         standIn.fault({{"route", "oauth2/token"}, {"times", 1}, {"delay_ms", 1000}});
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    standIn.forgetRequests();
    pages.set({});
    for (const auto& [action, expected] : c.script) {
      actions.at(action)();
      EXPECT_EQ(news(expected.size()), expected);
    }
    const auto ids = plugin().linkedAccountIds();
    EXPECT_EQ(ids.size(), c.isLinked ? 2U : 1U);
    EXPECT_EQ(standIn.requests()["oauth2/token"], c.exchanges);
    const auto begun = std::count_if(c.script.begin(), c.script.end(), [](const auto& step) {
      return step.first == Do::begin || step.first == Do::beginTwice;
    });
    EXPECT_EQ(static_cast<long>(pages.get().size()), begun) << "one page for each sign-in";
    if (ids.size() > 1) plugin().unlinkAccount(ids.back(), nullptr);
    standIn.clearFaults();
  }
}

TEST_F(SignInTest, EachSignInHasAClientOfItsOwn) {
  const auto before = helper()->restClient();
  signInAs("bob@example.com");
  EXPECT_FALSE(helper()->isSigningIn());
  EXPECT_NE(helper()->restClient(), before);
}

TEST_F(SignInTest, ASignInThatWasGivenUpLinksNobodyLater) {
  approveAs("bob@example.com");
  KZVDropboxFS::linkDropbox();
  news(2);
  plugin().cancelLinking();
  EXPECT_FALSE(helper()->isSigningIn());
  news(0);        // the service thread has closed what listened
  visit(page());  // the person allows it after all
  activate();
  EXPECT_EQ(news(0), std::vector<std::string>());
  EXPECT_EQ(plugin().linkedAccountIds().size(), 1U);
  signInAs("bob@example.com");
  EXPECT_EQ(plugin().linkedAccountIds().size(), 2U);
}

TEST_F(SignInTest, ASecondAccountIsListedBesideTheFirst) {
  const std::string bob = signInAs("bob@example.com");
  EXPECT_NE(bob, *ada->userId());
  ASSERT_TRUE(waitUntil([&] { return plugin().availableRootItems()->items().size() == 2; }));
  std::set<std::string> labels;
  const auto items = plugin().availableRootItems();
  for (const id& item : items->items())
    labels.insert(*textOf(as<NSDictionary>(item)->objectForKey(KZVFSLabel)));
  EXPECT_EQ(labels, (std::set<std::string>{"Ada", "Bob"}));
  EXPECT_EQ(plugin().desktopAccountId(), std::nullopt) << "without a desktop client";
}

TEST_F(SignInTest, AnAccountWhoseRefreshTokenWasRevokedIsUnlinkedAndTheListSaysSo) {
  standIn.settings({{"token_lifetime_s", 1}});  // so that every request has to renew the token
  const std::string bob = signInAs("bob@example.com");
  ASSERT_TRUE(waitUntil([&] { return plugin().availableRootItems()->items().size() == 2; }));
  standIn.settings({{"revoke", "bob@example.com"}});
  standIn.forgetRequests();
  const auto volume = plugin().makePlugin(nullptr, str(bob));
  NSErrorRef error;
  EXPECT_EQ(bounded([&] { return volume->attributesAtPath("/", &error); }), nullptr);
  EXPECT_NE(error, nullptr);
  EXPECT_TRUE(waitUntil([&] { return plugin().availableRootItems()->items().size() == 1; }));
  EXPECT_EQ(plugin().linkedAccountIds(), std::vector{*ada->userId()});
  EXPECT_GE(standIn.requests()["oauth2/token"], 1) << "it was the refresh token that told";
}

TEST_F(SignInTest, TheServiceThreadWaitsForNoStoreWhenAnAuthorizationIsLost) {
  standIn.settings({{"revoke", "ada@example.com"}});
  std::optional<FileLock> busy(std::in_place, storeLock(), 5s);
  ASSERT_TRUE(busy->isHeld());
  EXPECT_EQ(bounded([&] { return ada->attributesAtPath("/", nullptr); }), nullptr);
  KZVDropboxFileManager::dropboxThread()->perform([] {}, true);  // what was reported has had its turn
  EXPECT_TRUE(busy->isHeld());
  busy.reset();
  EXPECT_TRUE(waitUntil([&] { return plugin().linkedAccountIds().empty(); }));
  EXPECT_TRUE(waitUntil([&] { return storedAccounts().empty(); })) << "the store is not given up on";
}

TEST_F(SignInTest, ALinkingIsCancelledWhereverItIs) {
  approveAs("bob@example.com");
  // It has not begun yet.
  std::promise<void> go;
  KZVDropboxFileManager::dropboxThread()->perform([&] { go.get_future().wait_for(patience); }, false);
  plugin().linkAccount(FSPluginAccounts::LinkingAnswer::byRedirect);
  const auto before = helper()->cancelCount();
  auto cancelled = std::async(std::launch::async, [] { plugin().cancelLinking(); });
  while (helper()->cancelCount() == before) std::this_thread::yield();
  go.set_value();
  cancelled.get();
  EXPECT_EQ(news(0), std::vector<std::string>());
  EXPECT_TRUE(pages.get().empty());

  // The tokens have come, and the store is busy.
  KZVDropboxFS::linkDropbox();
  news(2);
  std::optional<FileLock> busy(std::in_place, storeLock(), 5s);
  ASSERT_TRUE(busy->isHeld());
  visit(page());
  const auto deadline = NSRunLoop::Clock::now() + patience;
  while (!standIn.requests().contains("oauth2/token") && NSRunLoop::Clock::now() < deadline)
    NSRunLoop::mainRunLoop()->runUntilDate(NSRunLoop::Clock::now() + 10ms);
  plugin().cancelLinking();
  busy.reset();
  DBSession::sharedSession()->waitForBackgroundWork(20);
  EXPECT_EQ(plugin().linkedAccountIds(), std::vector{*ada->userId()});
  EXPECT_EQ(storedAccounts(), std::vector{*ada->userId()});
}

TEST_F(SignInWithDesktopClientTest, AnAccountLinkedByTokenIsTheDesktopClientsToo) {
  EXPECT_EQ(plugin().desktopAccountId(), *ada->userId());
  const id stored =
      NSUserDefaults::initWithSuiteName(settingsSuite())->objectForKey(KZVDropboxFSDesktopUserIDKey);
  ASSERT_NE(textOf(stored), nullptr);
  EXPECT_EQ(*textOf(stored), *ada->userId());
}

TEST_F(SignInWithDesktopClientTest, TheFirstAccountLinkedIsTheDesktopClientsAndTheSecondIsNot) {
  EXPECT_EQ(plugin().desktopFolder(), "/home/ada/Box");
  plugin().unlinkAccount(*ada->userId(), nullptr);
  ASSERT_EQ(plugin().desktopAccountId(), std::nullopt);
  const std::string bob = signInAs("bob@example.com");
  EXPECT_EQ(plugin().desktopAccountId(), bob);
  const std::string cid = signInAs("cid@example.com");
  EXPECT_EQ(plugin().desktopAccountId(), bob);
  const auto stored = [] { return KZVDropboxUserDefaults()->objectForKey(KZVDropboxFSDesktopUserIDKey); };
  EXPECT_EQ(*textOf(stored()), bob);

  plugin().setDesktopAccountId("nobody", nullptr);
  EXPECT_EQ(plugin().desktopAccountId(), bob) << "an account that is not linked";
  plugin().setDesktopAccountId(cid, nullptr);
  EXPECT_EQ(*textOf(stored()), cid);
  signInAs("bob@example.com");
  EXPECT_EQ(plugin().desktopAccountId(), cid) << "what a person has said stays";
  plugin().unlinkAccount(cid, nullptr);
  EXPECT_EQ(plugin().desktopAccountId(), std::nullopt);
  EXPECT_EQ(stored(), nullptr);
}

TEST(DesktopClient, TheFolderIsKnownOrUnknownButNeverAProblem) {
  const OwnHome home;
  const fs::path folder = home.userHome.path() + "/.dropbox";
  const fs::path file = folder / "info.json";
  const auto text = [&](const std::string& content) {
    return [&home, content] { home.writeInformation(content); };
  };
  struct Case {
    const char* name;
    std::function<void()> make;
    std::optional<std::string> path;
  };
  const Case cases[] = {
      {"no file", [] {}, std::nullopt},
      {"as the client writes it", text(R"({"personal":{"path":"/d/Bøx","host":5},"x":1})"), "/d/Bøx"},
      {"another account only", text(R"({"business":{"path":"/d"}})"), std::nullopt},
      {"personal is no object", text(R"({"personal":["path","/d"]})"), std::nullopt},
      {"path is no text", text(R"({"personal":{"path":7}})"), std::nullopt},
      {"path is null", text(R"({"personal":{"path":null}})"), std::nullopt},
      {"an array", text(R"([{"personal":{"path":"/d"}}])"), std::nullopt},
      {"cut off", text(R"({"personal":{"path":"/d)"), std::nullopt},
      {"not UTF-8", text("{\"personal\":{\"path\":\"/d\xff\"}}"), std::nullopt},
      {"half of a character", text("{\"personal\":{\"path\":\"/d\xed\xa0\x80\"}}"), std::nullopt},
      {"empty", text(""), std::nullopt},
      {"deep", text(std::string(500'000, '[')), std::nullopt},
      {"a folder", [&] { fs::create_directories(file); }, std::nullopt},
      {"a pipe that nobody writes to", [&] { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); }, std::nullopt},
      {"a device without an end", [&] { fs::create_symlink("/dev/zero", file); }, std::nullopt},
      {"a link to itself", [&] { fs::create_symlink(file, file); }, std::nullopt},
      {"100 MB",
       [&] {
         std::string large = R"({"personal":{"path":"/d"}})";
         large.resize(100'000'000, ' ');
         home.writeInformation(large);
       },
       std::nullopt},
  };
  testing::internal::CaptureStderr();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(folder);
    fs::create_directories(folder);
    c.make();
    EXPECT_EQ(desktopClientFolder(), c.path);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(DesktopClient, ASandboxedHostLooksInThePersonsOwnHome) {
  const OwnHome home;
  home.writeInformation(R"({"personal":{"path":"/real"}})");
  struct Case {
    const char* home;
    const char* snap;
    std::optional<std::string> path;
  };
  const Case cases[] = {
      {"", "", "/real"},
      {"", "/snap/editor/1", "/real"},  // a terminal inside a confined editor
      {"/Library/Containers/app/Data", "", std::nullopt},
      {"/Library/Containers/app/Data", "/snap/kzv/1", "/real"},
      {"/snap/kzv/current/home", "/snap/kzv/1", "/real"},
      {"/projects/four/levels/below", "/snap/editor/1", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.home) + " with " + c.snap);
    setenv("HOME", (home.userHome.path() + c.home).c_str(), 1);
    setenv("SNAP", c.snap, 1);
    EXPECT_EQ(desktopClientFolder(), c.path);
  }
  unsetenv("SNAP");
}

namespace {

class LinkCommandTest : public testing::Test, protected OwnHome {
 protected:
  ChildProcess::Environment environment() const {
    return {{"KZV_HOME", home.path()},
            {"KZV_SERVICE_URL", standIn.url()},
            {"KZV_TOKEN_STORE", "file"},
            {"KZV_BUNDLE", KZV_BUNDLE_PATH}};
  }
  std::unique_ptr<ChildProcess> start(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), KZV_PROGRAM);
    return std::make_unique<ChildProcess>(arguments, environment());
  }
  ChildProcess::Outcome run(const std::vector<std::string>& arguments) const {
    return start(arguments)->finish(50s);
  }
  /// Every token in the store.
  std::vector<std::string> storedTokens() const {
    std::vector<std::string> tokens;
    for (const auto& entry : fs::recursive_directory_iterator(home.path() + "/data")) {
      std::ifstream file(entry.path());
      std::stringstream content;
      content << file.rdbuf();
      std::string text = content.str();
      for (const std::string name : {"access_token", "refresh_token", "accessToken", "refreshToken"}) {
        const auto at = text.find('"' + name + "\":\"");
        if (at == std::string::npos) continue;
        const auto first = at + name.size() + 4;
        tokens.push_back(text.substr(first, text.find('"', first) - first));
      }
    }
    return tokens;
  }

  TemporaryFolder home;
  StandIn standIn;
};

}  // namespace

TEST_F(LinkCommandTest, EndsAsThePersonAnswers) {
  enum class Code { asShown, usedBefore, tooLate };
  struct Case {
    const char* name;
    const char* approve;
    std::vector<std::string> arguments;
    int stop;  // a signal instead of a visit to the page
    int exitStatus;
    const char* output;
    const char* errors;
    Code code = Code::asShown;
  };
  const char* noLongerGood =
      "kzv: link: Could not sign in: the authorization is no longer valid; sign in again.";
  const Case cases[] = {
      {"allowed", "auto", {"link", "--no-browser"}, 0, 0, "linked Ada (dbid:", ""},
      {"the code is typed in", "auto", {"link", "--type-code"}, 0, 0, "linked Ada (dbid:", ""},
      {"the same code again", "auto", {"link", "--type-code"}, 0, 1, "", noLongerGood, Code::usedBefore},
      {"typed in too late", "auto", {"link", "--type-code"}, 0, 1, "", noLongerGood, Code::tooLate},
      {"refused",
       "deny",
       {"link", "--no-browser"},
       0,
       1,
       "",
       "kzv: link: Could not sign in: the sign-in was declined"},
      {"stopped", "page", {"link", "--no-browser"}, SIGINT, 130, "", "kzv: link: stopped"},
      {"allowed at last", "auto", {"link", "--no-browser"}, 0, 0, "linked Ada (dbid:", ""},
  };
  std::string code;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    standIn.settings({{"approve", c.approve}, {"approve_as", "ada@example.com"}, {"clock_offset_s", 0}});
    const auto kzv = start(c.arguments);
    const auto url = kzv->readLine(30s);
    ASSERT_TRUE(url);
    if (c.stop != 0) {
      kzv->signal(c.stop);
    } else {
      const std::string page = visit(*url).page;
      const std::string mark = "<code id=\"code\">";
      if (const auto at = page.find(mark); at != std::string::npos) {
        const auto first = at + mark.size();
        if (c.code != Code::usedBefore) code = page.substr(first, page.find('<', first) - first);
        if (c.code == Code::tooLate) standIn.settings({{"clock_offset_s", 601}});
        kzv->writeInput(code + "\n");
      }
    }
    const auto outcome = kzv->finish(50s);
    EXPECT_EQ(outcome.exitStatus, c.exitStatus) << outcome.errors;
    EXPECT_NE(outcome.output.find(c.output), std::string::npos) << outcome.output;
    EXPECT_NE(outcome.errors.find(c.errors), std::string::npos) << outcome.errors;
  }
}

TEST_F(LinkCommandTest, ATakenPortIsGoneRoundAndOneThatWasGivenUpIsFree) {
  const auto redirectOf = [](ChildProcess& kzv) {
    return decoded(field(kzv.readLine(30s).value_or(""), "redirect_uri"));
  };
  auto waiting = start({"link", "--no-browser"});
  const std::string address = redirectOf(*waiting);
  const auto port = address.substr(address.rfind(':') + 1);
  ASSERT_NE(port, "") << address;
  setenv("KZV_SIGN_IN_PORT", port.substr(0, port.find('/')).c_str(), 1);
  for (const int end : {SIGINT, SIGTERM, SIGKILL}) {
    SCOPED_TRACE(end);
    EXPECT_EQ(redirectOf(*start({"link", "--no-browser"})), "") << "another waits: the page shows the code";
    // A connection that the end leaves behind.
    EXPECT_EQ(visit("http://127.0.0.1:" + port).status, 400);
    waiting->signal(end);
    waiting->finish(50s);
    waiting = start({"link", "--no-browser"});
    EXPECT_EQ(redirectOf(*waiting), address);
  }
}

TEST_F(LinkCommandTest, TheDesktopsOwnBrowserShowsThePage) {
  for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME"}) setenv(name, userHome.path().c_str(), 1);
  fs::create_directories(userHome.path() + "/applications");
  std::ofstream(userHome.path() + "/applications/browser.desktop")
      << "[Desktop Entry]\nType=Application\nName=Browser\nExec=curl -sL --noproxy * -o /dev/null %u\n";
  std::ofstream(userHome.path() + "/mimeapps.list")
      << "[Default Applications]\nx-scheme-handler/http=browser.desktop\n";
  standIn.settings({{"approve", "auto"}, {"approve_as", "ada@example.com"}});
  const auto outcome = run({"link"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.errors;
  EXPECT_EQ(outcome.output.find("linked Ada (dbid:"), 0U) << outcome.output;
}

TEST_F(LinkCommandTest, NeitherCodeNorTokenIsEverShown) {
  standIn.settings({{"approve", "auto"}, {"approve_as", "ada@example.com"}});
  const auto kzv = start({"--verbose", "link", "--no-browser"});
  const auto url = kzv->readLine(30s);
  ASSERT_TRUE(url);
  const std::string code = field(visit(*url).address, "code");
  ASSERT_GT(code.size(), 8U);
  const auto linked = kzv->finish(50s);
  ASSERT_EQ(linked.exitStatus, 0) << linked.errors;
  const auto listed = run({"--verbose", "ls", "/"});
  const std::string shown = linked.output + linked.errors + listed.output + listed.errors;
  EXPECT_NE(shown.find("authHelperStateChangedNotification: "), std::string::npos) << "it is verbose";
  EXPECT_EQ(shown.find(code), std::string::npos);
  const auto tokens = storedTokens();
  ASSERT_GE(tokens.size(), 2U);
  for (const std::string& token : tokens) EXPECT_EQ(shown.find(token), std::string::npos);
}

TEST_F(LinkCommandTest, DesktopShowsFolderAndAccount) {
  EXPECT_EQ(run({"--json", "desktop"}).output, "{}\n");
  writeInformation(R"({"personal":{"path":"/home/ada/Box"}})");
  EXPECT_EQ(run({"--json", "desktop"}).output, "{\"path\":\"/home/ada/Box\"}\n");
  standIn.settings({{"approve", "auto"}, {"approve_as", "ada@example.com"}});
  const auto kzv = start({"link", "--no-browser"});
  const auto url = kzv->readLine(30s);
  ASSERT_TRUE(url);
  visit(*url);
  ASSERT_EQ(kzv->finish(50s).exitStatus, 0);
  const json::value shown = json::parse(run({"--json", "desktop"}).output);
  EXPECT_EQ(shown.at("path").as_string(), "/home/ada/Box");
  EXPECT_TRUE(shown.at("id").as_string().starts_with("dbid:"));
  EXPECT_EQ(run({"desktop", "--set", "Nobody"}).exitStatus, 3);
}
