// The programs as a person uses them: kzv against a running kzv-service.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/StandIn.h"
#include "testing/TemporaryFolder.h"

namespace json = boost::json;
using namespace std::chrono_literals;

namespace {

class CommandsTest : public testing::Test {
 protected:
  ChildProcess::Environment environment() const {
    return {{"KZV_HOME", home.path()},
            {"KZV_SERVICE_URL", standIn.url()},
            {"KZV_TOKEN_STORE", "file"},
            {"KZV_BUNDLE", KZV_BUNDLE_PATH}};
  }
  ChildProcess::Outcome kzv(std::vector<std::string> arguments, const std::string& input = {}) {
    arguments.insert(arguments.begin(), KZV_PROGRAM);
    return ChildProcess::run(arguments, environment(), input);
  }
  void link(const std::string& token) {
    ASSERT_EQ(kzv({"link", "--token-stdin"}, token + "\n").exitStatus, 0);
  }

  TemporaryFolder home;
  StandIn standIn;
};

std::map<std::string, std::int64_t> treeOf(const std::string& jsonLines) {
  std::map<std::string, std::int64_t> tree;
  std::istringstream lines(jsonLines);
  for (std::string line; std::getline(lines, line);) {
    const json::value item = json::parse(line);
    const std::string path(item.at("path").as_string());
    tree[item.at("dir").as_bool() ? path + "/" : path] = item.at("size").to_number<std::int64_t>();
  }
  return tree;
}

}  // namespace

TEST_F(CommandsTest, RecursiveListingEqualsTheServicesOwnTree) {
  struct Case {
    const char* name;
    json::object settings;
  };
  const Case cases[] = {
      {"pages as they come", {{"page_size", 2000}}},
      {"one entry a page", {{"page_size", 1}}},
      {"parents come back in lower case", {{"page_size", 2000}, {"display_case_quirk", true}}}};
  standIn.write("/Docs/Ünï Cödé.txt", "text");
  standIn.write("/Docs/Deeper/Deepest/x", "text");
  standIn.makeTree("/Synthetic Tree", 5, 20);
  const auto expected = standIn.tree();
  link("ada-token");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    standIn.settings(c.settings);
    const auto outcome = kzv({"--json", "ls", "-R", "/"});
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.errors;
    EXPECT_EQ(treeOf(outcome.output), expected);
  }
}

TEST_F(CommandsTest, FiftyThousandEntriesAreListedWhole) {
  standIn.makeTree("/big", 50, 1000);
  link("ada-token");
  const auto outcome = kzv({"--json", "ls", "-R", "/"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.errors;
  const auto shown = treeOf(outcome.output);
  EXPECT_EQ(shown.size(), 50051U);
  EXPECT_EQ(shown, standIn.tree());
}

TEST_F(CommandsTest, ExitStatusAndOneLineSayWhatHappened) {
  standIn.write("/Docs/a.txt", "12345");
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    int exitStatus;
    const char* output;  // contained in standard output
    const char* errors;  // contained in standard error
  };
  const Case unlinked[] = {{"no account yet", {"ls", "/"}, 3, "", "kzv: ls:"},
                           {"empty token", {"link", "--token-stdin"}, 2, "", "kzv: link:"}};
  for (const Case& c : unlinked) {
    SCOPED_TRACE(c.name);
    const auto outcome = kzv(c.arguments);
    EXPECT_EQ(outcome.exitStatus, c.exitStatus);
    EXPECT_NE(outcome.errors.find(c.errors), std::string::npos) << outcome.errors;
  }
  link("ada-token");
  const Case linked[] = {
      {"root", {"ls"}, 0, "Docs", ""},
      {"attributes", {"--json", "stat", "/docs/A.TXT"}, 0, "\"size\":5", ""},
      {"absent", {"stat", "/none"}, 1, "", "kzv: stat: /none: "},
      {"unknown account", {"--account", "Nobody", "ls", "/"}, 3, "", "Nobody"},
      {"account by name", {"--account", "Ada", "ls", "/"}, 0, "Docs", ""},
      {"unknown verb", {"frobnicate"}, 2, "", "frobnicate"},
      {"accounts", {"--json", "accounts"}, 0, "\"label\":\"Ada\"", ""},
      {"help for a verb", {"ls", "--help"}, 0, "ls", ""},
  };
  for (const Case& c : linked) {
    SCOPED_TRACE(c.name);
    const auto outcome = kzv(c.arguments);
    EXPECT_EQ(outcome.exitStatus, c.exitStatus) << outcome.errors;
    EXPECT_NE(outcome.output.find(c.output), std::string::npos) << outcome.output;
    EXPECT_NE(outcome.errors.find(c.errors), std::string::npos) << outcome.errors;
  }
  link("bob-token");
  EXPECT_EQ(kzv({"ls", "/"}).exitStatus, 3);  // which of the two?
}

TEST_F(CommandsTest, WatchTellsOfChangesUntilItIsStopped) {
  standIn.write("/Docs/a.txt", "1");
  link("ada-token");
  auto variables = environment();
  variables["KZV_POLL_SECONDS"] = "0.05";
  ChildProcess watching({KZV_PROGRAM, "--json", "watch", "/Docs"}, variables);
  while (standIn.requests().count("files/list_folder/continue") == 0) std::this_thread::yield();  // it polls
  standIn.write("/Docs/b.txt", "2");
  EXPECT_EQ(watching.readLine(30s), "{\"path\":\"/Docs\"}");
  watching.signal(SIGINT);
  EXPECT_EQ(watching.finish(10s).exitStatus, 130);
}

TEST_F(CommandsTest, WatchEndsWhenTheAccountIsUnlinkedElsewhere) {
  link("ada-token");
  auto variables = environment();
  variables["KZV_POLL_SECONDS"] = "0.05";
  ChildProcess watching({KZV_PROGRAM, "watch", "/"}, variables);
  while (standIn.requests().count("files/list_folder/continue") == 0) std::this_thread::yield();  // it polls
  ASSERT_EQ(kzv({"unlink", "Ada"}).exitStatus, 0);
  const auto outcome = watching.finish(40s);
  EXPECT_EQ(outcome.exitStatus, 3);
  EXPECT_NE(outcome.errors.find("is no longer linked"), std::string::npos) << outcome.errors;
}

TEST_F(CommandsTest, AProcessThatRunsGoesOnWithALinkingOfAnother) {
  link("ada-token");
  auto variables = environment();
  variables["KZV_POLL_SECONDS"] = "0.05";
  ChildProcess watching({KZV_PROGRAM, "--json", "watch", "/"}, variables);
  while (standIn.requests().count("files/list_folder/continue") == 0) std::this_thread::yield();
  // Its polls are held up while the account is unlinked and linked anew.
  standIn.fault(
      {{"route", "files/list_folder/continue"}, {"times", 1000}, {"status", 500}, {"body", "later"}});
  ASSERT_EQ(kzv({"unlink", "Ada"}).exitStatus, 0);
  standIn.settings({{"approve", "auto"}, {"approve_as", "ada@example.com"}});
  auto signIn = variables;
  signIn["KZV_SIGN_IN_PORT"] = "0";
  ChildProcess linking({KZV_PROGRAM, "link", "--no-browser"}, signIn);
  const auto page = linking.readLine(30s);
  ASSERT_TRUE(page);
  ASSERT_EQ(
      ChildProcess::run({"/usr/bin/curl", "-sL", "--noproxy", "*", "-o", "/dev/null", *page}).exitStatus, 0);
  ASSERT_EQ(linking.finish(40s).exitStatus, 0);
  standIn.clearFaults();
  ASSERT_EQ(kzv({"mkdir", "/News"}).exitStatus, 0);
  EXPECT_EQ(watching.readLine(40s), "{\"path\":\"/\"}");
  EXPECT_EQ(kzv({"ls", "/"}).output, "News/\n") << "the new linking is still there";
}

TEST_F(CommandsTest, AStoreThatCannotBeReadIsAnErrorAndNothingIsDeleted) {
  link("ada-token");
  ASSERT_EQ(kzv({"desktop", "--set", "Ada"}).exitStatus, 0);
  std::string store;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path()))
    if (entry.path().filename() == "accounts.json") store = entry.path();
  ASSERT_FALSE(store.empty());
  std::filesystem::rename(store, store + ".away");
  std::filesystem::create_directory(store);
  for (const char* verb : {"accounts", "ls", "df"}) {
    const auto outcome = kzv({verb});
    EXPECT_EQ(outcome.exitStatus, 1) << verb;
    EXPECT_NE(outcome.errors.find("accounts.json"), std::string::npos) << outcome.errors;
  }
  std::filesystem::remove(store);
  std::filesystem::rename(store + ".away", store);
  EXPECT_NE(kzv({"--json", "desktop"}).output.find("\"id\""), std::string::npos) << "the record was kept";
}

TEST_F(CommandsTest, WithoutAConnectionTheConnectionIsBlamedAndUnlinkSaysWhatIsLeft) {
  link("ada-token");
  const auto listed = json::parse(kzv({"--json", "accounts"}).output);
  const std::string accountId(listed.at("id").as_string());
  standIn.fault({{"route", "*"}, {"times", 1000}, {"drop_answer", true}});
  for (const char* verb : {"df", "info"}) {
    const auto outcome = kzv({verb});
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_NE(outcome.errors.find("the service could not be reached"), std::string::npos) << outcome.errors;
  }
  standIn.clearFaults();
  standIn.fault({{"route", "auth/token/revoke"}, {"times", 1000}, {"status", 500}, {"body", "later"}});
  const auto outcome = kzv({"unlink", accountId});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_NE(outcome.errors.find("unlinked here, but not revoked: "), std::string::npos) << outcome.errors;
  EXPECT_NE(outcome.errors.find("/account/connected_apps"), std::string::npos) << outcome.errors;
  standIn.clearFaults();
  EXPECT_EQ(kzv({"ls"}).exitStatus, 3) << "forgotten";
}

TEST_F(CommandsTest, ATokenGoesToNoOtherOrigin) {
  link("ada-token");
  StandIn other;
  other.forgetRequests();
  auto variables = environment();
  variables["KZV_SERVICE_URL"] = other.url();
  const auto outcome = ChildProcess::run({KZV_PROGRAM, "ls", "/"}, variables);
  EXPECT_EQ(outcome.exitStatus, 3) << outcome.errors;
  EXPECT_EQ(other.requests(), (std::map<std::string, int>())) << "nothing was asked there";
  EXPECT_EQ(kzv({"ls", "/"}).exitStatus, 0);
}

TEST_F(CommandsTest, NoCoreDumpHoldsATokenAndNoDebuggerOfTheUserReadsOne) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start a program of another user";
  constexpr uid_t nobody = 65534;
  const TemporaryFolder own;
  ASSERT_EQ(::chown(own.path().c_str(), nobody, nobody), 0);
  auto variables = environment();
  variables["KZV_HOME"] = own.path();
  variables["KZV_SIGN_IN_PORT"] = "0";
  ChildProcess linking(
      {"/usr/bin/setpriv", "--reuid=65534", "--clear-groups", KZV_PROGRAM, "link", "--no-browser"},
      variables);
  if (!linking.readLine(30s)) GTEST_SKIP() << "another user cannot start the program here";
  struct stat status {};
  ASSERT_EQ(::stat(("/proc/" + std::to_string(linking.pid()) + "/status").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 0U) << "the kernel gives the files of a process that may not be dumped to root";
  linking.signal(SIGINT);
  linking.finish(10s);
}

TEST_F(CommandsTest, SpaceSummaryLinksAndPicturesAreOneCommandEach) {
  standIn.write("/Docs/a.txt", "12345");
  link("ada-token");
  const std::string icon = home.path() + "/icon.png";
  const std::string pipe = home.path() + "/pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  struct Case {
    std::vector<std::string> arguments;
    int exitStatus;
    const char* output;
  };
  const Case cases[] = {
      {{"--json", "df"}, 0, "\"total\":"},
      {{"--json", "info"}, 0, "\"email\":\"ada@example.com\""},
      {{"--json", "info"}, 0, "\"total\":2147483648"},
      {{"share", "/Docs/a.txt"}, 3, ""},
      {{"desktop", "--set", "Ada"}, 0, "account"},
      {{"--json", "share", "/Docs/a.txt"}, 0, "{\"url\":\"http"},
      {{"--json", "icon", "/Docs/a.txt", "--out", icon}, 0, "{\"width\":48,\"height\":48}"},
      {{"preview", "/Docs/a.txt", "--out", icon}, 1, ""},
      {{"icon", "/Docs", "--out", pipe}, 1, ""},
      {{"put", icon, "/Docs/icon.png"}, 0, "icon.png"},
      {{"--json", "preview", "/Docs/icon.png", "--out", icon}, 0, "{\"width\":48,\"height\":48}"},
  };
  for (const Case& c : cases) {
    const auto outcome = kzv(c.arguments);
    EXPECT_EQ(outcome.exitStatus, c.exitStatus) << c.arguments[0] << ": " << outcome.errors;
    EXPECT_NE(outcome.output.find(c.output), std::string::npos) << outcome.output;
  }
  EXPECT_TRUE(std::filesystem::is_fifo(pipe)) << "replaced by a picture";
  EXPECT_EQ(kzv({"share", "/Docs/a.txt"}).output, kzv({"share", "/Docs/A.TXT"}).output) << "one link";
  standIn.settings({{"account", "ada-token"}, {"quota", 2}});
  const json::value space = json::parse(kzv({"--json", "df"}).output);
  EXPECT_LT(space.at("free").to_number<std::int64_t>(), 0) << "more is used than there is";
}

TEST_F(CommandsTest, TokensAreSeenInNoOutputAndNoReadableFileAndDieWithTheAccount) {
  standIn.write("/Docs/a.txt", "12345");
  ASSERT_TRUE(std::ofstream(home.path() + "/local") << "text");
  const std::string out = home.path() + "/out";
  // Every verb, with what it says when it works and when it does not. link and unlink stand around them;
  // shell and mount only run others.
  const std::vector<std::vector<std::string>> commands{
      {"accounts"},
      {"ls", "-R", "/"},
      {"stat", "/none"},
      {"get", "/Docs/a.txt", out},
      {"put", home.path() + "/local", "/Docs/b.txt"},
      {"mkdir", "/Docs/New"},
      {"mv", "/Docs/b.txt", "/Docs/New/c.txt"},
      {"rm", "/Docs/New/c.txt"},
      {"df"},
      {"info"},
      {"desktop", "--set", "Ada"},
      {"share", "/Docs/a.txt"},
      {"icon", "/Docs", "--out", out},
      {"preview", "/Docs/a.txt", "--out", out},
  };
  std::string everything;
  std::set<std::string> tried{"link", "unlink", "watch", "shell", "mount", "umount"};
  const auto run = [&](std::vector<std::string> arguments, const std::string& input = {}) {
    tried.insert(arguments.front());
    arguments.insert(arguments.begin(), "--verbose");
    const auto outcome = kzv(arguments, input);
    everything += outcome.output + outcome.errors;
    return outcome.exitStatus;
  };
  ASSERT_EQ(run({"link", "--token-stdin"}, "ada-token\n"), 0);
  for (const auto& command : commands) {
    const bool shouldWork = command[0] != "stat" && command[0] != "preview";
    EXPECT_EQ(run(command), shouldWork ? 0 : 1) << command[0];
  }
  standIn.forgetRequests();
  ChildProcess watching({KZV_PROGRAM, "--verbose", "watch", "/Docs"}, environment());
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (standIn.requests().empty() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  watching.signal(SIGINT);
  const auto watched = watching.finish(10s);
  everything += watched.output + watched.errors;
  for (const int status : {400, 401, 500}) {
    standIn.fault({{"route", "*"}, {"times", 100}, {"status", status}, {"body", "refused"}});
    EXPECT_EQ(run({"ls", "/"}), 1) << status;
    standIn.clearFaults();
  }
  EXPECT_NE(everything.find("linked dropbox user"), std::string::npos) << "it is verbose";
  EXPECT_EQ(everything.find("ada-token"), std::string::npos);
  const auto help = kzv({"--help"}).output;
  std::istringstream verbs(help.substr(help.find("Subcommands:")));
  for (std::string line; std::getline(verbs, line);) {
    if (!line.starts_with("  ") || line[2] == ' ') continue;
    EXPECT_EQ(tried.count(line.substr(2, line.find(' ', 2) - 2)), 1U) << "not tried: " << line;
  }

  int stores = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home.path())) {
    std::ifstream file(entry.path());
    std::ostringstream content;
    content << file.rdbuf();
    if (content.str().find("ada-token") == std::string::npos) continue;
    ++stores;
    EXPECT_EQ(std::filesystem::status(entry.path()).permissions(), std::filesystem::perms(0600))
        << entry.path();
    EXPECT_EQ(std::filesystem::status(entry.path().parent_path()).permissions(),
              std::filesystem::perms(0700));
  }
  EXPECT_EQ(stores, 1) << "the token store and no other file";
  const auto listed = kzv({"--json", "accounts"});
  const std::string accountId(
      json::parse(listed.output.substr(0, listed.output.find('\n'))).at("id").as_string());
  EXPECT_EQ(run({"unlink", accountId}), 0);
  EXPECT_EQ(kzv({"ls", "/"}).exitStatus, 3);
  EXPECT_EQ(kzv({"link", "--token-stdin"}, "ada-token").exitStatus, 1);  // revoked at the service
}

TEST_F(CommandsTest, ASecretServiceKeepsTheTokensWhereOneRuns) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "GLib's own locks are invisible to ThreadSanitizer";
#endif
  for (const std::string program : {"dbus-run-session", "gnome-keyring-daemon", "gdbus"}) {
    if (ChildProcess::run({"/bin/sh", "-c", "command -v " + program}).exitStatus != 0) {
      GTEST_SKIP() << "no " << program << " (apt-get install dbus gnome-keyring libglib2.0-bin)";
    }
  }
  const TemporaryFolder person;  // whose keyring it is
  auto variables = environment();
  variables["KZV_TOKEN_STORE"] = "";
  variables["KZV_APP_KEY"] = "own-key";
  for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) variables[name] = person.path();
  const std::string session = R"sh(
    printf keyring | gnome-keyring-daemon --foreground --unlock --components=secrets >/dev/null 2>&1 &
    daemon=$!
    trap 'kill $daemon' EXIT
    gdbus wait --session --timeout 20 org.freedesktop.secrets || exit 9
    kept() {
      gdbus call --session --dest org.freedesktop.secrets --object-path /org/freedesktop/secrets \
        --method org.freedesktop.Secret.Service.SearchItems "{'application':'own-key@$KZV_SERVICE_URL'}" | grep -o "'/[^']*'" | wc -l
    }
    echo "ada-token" | "$1" link --token-stdin >/dev/null || exit 1
    echo "kept $(kept)"
    "$1" ls / >/dev/null && echo "another process finds it"
    grep -rl ada-token "$KZV_HOME" "$HOME"
    "$1" unlink Ada >/dev/null || exit 1
    echo "kept $(kept)"
    "$1" ls / 2>/dev/null || echo "status $?"
  )sh";
  const auto outcome = ChildProcess::run(
      {"/usr/bin/env", "dbus-run-session", "--", "sh", "-c", session, "sh", KZV_PROGRAM}, variables);
  EXPECT_EQ(outcome.output, "kept 1\nanother process finds it\nkept 0\nstatus 3\n") << outcome.errors;
}

TEST_F(CommandsTest, AProgramStartedWithoutStandardStreamsWritesIntoNoOtherFile) {
  link("ada-token");
  standIn.forgetRequests();
  auto variables = environment();
  variables["KZV_POLL_SECONDS"] = "0.05";
  const ChildProcess watching(
      {"/bin/sh", "-c", R"(exec "$0" "$@" <&- >&- 2>&-)", KZV_PROGRAM, "--verbose", "watch", "/"}, variables);
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (standIn.requests().empty() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  ChildProcess service({"/bin/sh", "-c", R"(exec "$0" <&- 2>&-)", KZV_SERVICE_PROGRAM});
  ASSERT_TRUE(service.readLine(30s));
  struct Case {
    const char* name;
    pid_t process;
    int number;
  };
  const Case cases[] = {{"kzv: input", watching.pid(), 0},
                        {"kzv: output", watching.pid(), 1},
                        {"kzv: errors", watching.pid(), 2},
                        {"service: input", service.pid(), 0},
                        {"service: errors", service.pid(), 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto link = "/proc/" + std::to_string(c.process) + "/fd/" + std::to_string(c.number);
    EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null");
    struct stat status {};  // of the link: its mode tells how it was opened
    EXPECT_EQ(::lstat(link.c_str(), &status), 0);
    EXPECT_TRUE((status.st_mode & S_IRUSR) && (status.st_mode & S_IWUSR)) << "cannot be written to";
  }
}

TEST_F(CommandsTest, AnInterruptEndsAListingThatHangsAtOnce) {
  link("ada-token");
  standIn.fault({{"route", "files/list_folder"}, {"times", 100}, {"delay_ms", 60000}});
  auto variables = environment();
  ChildProcess listing({KZV_PROGRAM, "ls", "/"}, variables);
  while (standIn.faultHits() == 0) std::this_thread::yield();
  listing.signal(SIGINT);
  EXPECT_EQ(listing.finish(20s).exitStatus, 130);
  standIn.clearFaults();
}

TEST_F(CommandsTest, ARefusedServiceAddressSendsNothingAnywhere) {
  standIn.write("/precious.txt", "stays");
  link("ada-token");
  // Requests to the real hosts would go through this proxy, where they can be seen without being answered.
  const int proxy = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(proxy, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(::listen(proxy, 16), 0);
  ASSERT_EQ(::getsockname(proxy, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  standIn.forgetRequests();

  const std::string port = standIn.url().substr(standIn.url().rfind(':'));
  const std::string badAddresses[] = {"http://example.invalid",
                                      "http://127.0.0.1.example.invalid" + port,
                                      "http://ada@127.0.0.1" + port,
                                      "http://127.0.0.1" + port + "/2",
                                      "http://127.0.0.1" + port + "?a",
                                      "http://127.0.0.1" + port + "x",
                                      "http://127.0.0.1:99999",
                                      "http://",
                                      "http://[::1",
                                      "htp://127.0.0.1" + port,
                                      "127.0.0.1" + port,
                                      " "};
  for (const std::string& bad : badAddresses) {
    for (const bool asOption : {true, false}) {
      SCOPED_TRACE(bad + (asOption ? " as --service" : " as KZV_SERVICE_URL"));
      auto variables = environment();
      variables["https_proxy"] = variables["all_proxy"] = proxyUrl;
      if (!asOption) variables["KZV_SERVICE_URL"] = bad;
      std::vector<std::string> arguments{KZV_PROGRAM, "rm", "/precious.txt"};
      if (asOption) arguments.insert(arguments.begin() + 1, {"--service", bad});
      const auto outcome = ChildProcess::run(arguments, variables);
      EXPECT_EQ(outcome.exitStatus, 2);
      EXPECT_TRUE(outcome.errors.starts_with("kzv: ")) << outcome.errors;
      EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << outcome.errors;
      EXPECT_NE(outcome.errors.find(asOption ? "--service" : "KZV_SERVICE_URL"), std::string::npos)
          << outcome.errors;
    }
  }
  pollfd waiting{proxy, POLLIN, 0};
  EXPECT_EQ(::poll(&waiting, 1, 0), 0) << "something was sent to the real service";
  ::close(proxy);
  EXPECT_TRUE(standIn.requests().empty());
  EXPECT_EQ(standIn.content("/precious.txt"), "stays");
}
