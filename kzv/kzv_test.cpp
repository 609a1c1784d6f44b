#include <boost/json.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "kzv/testing/KzvTest.h"

namespace kzv::cli {

namespace {

namespace fs = std::filesystem;

TEST_F(KzvTest, EachCommandPrintsWhatItShouldAndNothingElse) {
  file("fail-file", 1);
  folder("fail-folder");
  folder("unlink-me");
  file("odd/a\nb", 1);
  file("odd/\x1b[31mred", 1);
  file("odd/\xff", 1);
  folder("walk/fail-here");
  file("walk/z", 3);
  struct Case {
    const char* command;
    std::string out;
    std::string err = {};  // without "kzv: "
    int status = 0;
    std::string accounts = "u1";
    std::string input = {};
  };
  const std::string missing = "ls: /nowhere: no such file or folder (NSPOSIXErrorDomain 2)\n";
  const std::string fails = ": this item always fails (TestDomain 7)\n";
  const std::string none = "no account is linked; link one with: kzv link";
  const std::string time = R"(,"modified":"2024-05-01T09:30:00Z"})"
                           "\n";
  const std::string shownTime = "  modified  2024-05-01 09:30  (2024-05-01T09:30:00Z)\n";
  const std::string tooMuch(70'000, 'x');
  const Case cases[] = {
      {"accounts", "u1     Ada\nuser2  Bob\n", "", 0, "u1=Ada,user2=Bob"},
      {"--json accounts",
       R"({"id":"u1","label":"Ada","available":true})"
       "\n"
       R"({"id":"u2","label":"u2","available":false})"
       "\n",
       "", 0, "u1=Ada,u2"},
      {"--quiet accounts", "", "", 0, ""},
      {"ls", "Documents/\nempty/\nfail-file\nfail-folder/\nodd/\nunlink-me/\nwalk/\n"},
      {"ls -l Documents",
       "   -  2024-05-01 09:30  Sub/\n1234  2024-05-01 09:30  report.txt\n"
       "   0  -                 timeless-note\n"},
      {"ls -R /Documents",
       "/Documents/Sub/\n/Documents/Sub/deep.txt\n/Documents/report.txt\n/Documents/timeless-note\n"},
      {"--json ls /Documents",
       R"({"path":"/Documents/Sub","name":"Sub","dir":true,"size":0)" + time +
           R"({"path":"/Documents/report.txt","name":"report.txt","dir":false,"size":1234)" + time +
           R"({"path":"/Documents/timeless-note","name":"timeless-note","dir":false,"size":0})"
           "\n"},
      {"ls Documents/report.txt", "report.txt\n"},
      {"ls /empty /Documents/Sub", "/empty:\n\n/Documents/Sub:\ndeep.txt\n"},
      {"ls odd", "\\x1b[31mred\na\\nb\n\\xff\n"},
      {"ls -R /walk", "/walk/fail-here/\n/walk/z\n", "ls: /walk/fail-here" + fails, 1},
      {"ls /nowhere /Documents/Sub", "/nowhere:\n\n/Documents/Sub:\ndeep.txt\n", missing, 1},
      {"ls /..", "",
       "ls: /..: not a path: it must be valid UTF-8 and stay below \"/\" (KZVHostErrorDomain 3)\n", 2},
      {"ls /unlink-me", "", "ls: /unlink-me: the account u1 is no longer linked (KZVHostErrorDomain 2)\n", 3},
      {"stat /Documents/report.txt Documents",
       "/Documents/report.txt\n  kind      file\n  size      1234 bytes (1 KB)\n" + shownTime +
           "/Documents\n  kind      folder\n" + shownTime},
      {"--json stat /empty", R"({"path":"/empty","name":"empty","dir":true,"size":0)" + time},
      {"stat /fail-file", "", "stat: /fail-file" + fails, 1},
      {"ls", "", "ls: " + none + " (KZVHostErrorDomain 1)\n", 3, ""},
      {"ls", "",
       "ls: several accounts are linked, choose one with --account: u1 (Ada), u2 (KZVHostErrorDomain 1)\n", 3,
       "u1=Ada,u2"},
      {"--account u2 ls /Documents/Sub", "deep.txt\n", "", 0, "u1=Ada,u2"},
      {"--account Bob ls /Documents/Sub", "deep.txt\n", "", 0, "u1=Ada,u2=Bob"},
      {"--account Ada ls", "",
       "ls: several accounts are called \"Ada\", choose one by its id: u1 (Ada), u2 (Ada) "
       "(KZVHostErrorDomain 1)\n",
       3, "u1=Ada,u2=Ada"},
      {"--account Eve ls", "", "ls: no account \"Eve\"; linked are: u1 (Ada) (KZVHostErrorDomain 1)\n", 3,
       "u1=Ada"},
      {"link --token-stdin", "linked 5 characters (fresh)\n", "", 0, "", "  \n t0ken\n\n"},
      {"--json link --token-stdin", "{\"id\":\"fresh\",\"label\":\"21 characters\"}\n", "", 0, "",
       R"({"access_token": "x"})"},
      {"link --token-stdin", "", "link: standard input has no token (KZVHostErrorDomain 3)\n", 2, "", " \n"},
      {"link --token-stdin", "",
       "link: standard input has more than 64 KiB: that is not a token (KZVHostErrorDomain 3)\n", 2, "",
       tooMuch},
      {"link --token-stdin", "", "link: the token is not accepted (TestDomain 401)\n", 1, "", "refused"},
      {"unlink u2", "unlinked u2\n", "", 0, "u1=Ada,u2"},
      {"unlink Ada", "unlinked u1\n", "", 0, "u1=Ada,u2"},
      {"unlink Eve", "", "unlink: Eve: no account \"Eve\"; linked are: u1 (Ada) (KZVHostErrorDomain 1)\n", 3,
       "u1=Ada"},
      {"unlink", "", "unlink: ID is required; see kzv unlink --help\n", 2, "u1=Ada"},
      {"unlink stuck", "", "unlink: stuck: unlinked here, but not revoked (TestDomain 5)\n", 1, "stuck,u2"},
      {"df", "total  2 GB\nfree   -1.5 MB\n"},
      {"--json df", "{\"total\":2000000000,\"free\":-1500000}\n"},
      {"info", "id     u1\nemail  ada@example.com\nfree   -1.5 MB\ntotal  2 GB\n"},
      {"--json info", R"({"id":"u1","email":"ada@example.com","free":-1500000,"total":2000000000})"
                      "\n"},
      {"info", "", "info: offline: could not connect (TestDomain -7)\n", 1, "offline"},
      {"--quiet share /a", "https://host/a\n"},
      {"--json share /team-only", R"({"url":"https://host/team-only","audience":"team_only"})"
                                  "\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    std::istringstream words(c.command);
    const auto result = run({std::istream_iterator<std::string>(words), {}}, c.accounts, c.input);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err.empty() ? "" : "kzv: " + c.err);
  }
  EXPECT_EQ(run({"accounts"}, "").err, none + "\n");
  const auto restricted = run({"share", "/team-only"});
  EXPECT_EQ(restricted.out, "https://host/team-only\n");
  EXPECT_EQ(restricted.err, "this link is not for everybody: only members of the team can open it\n");
}

TEST_F(KzvTest, AccountsThatCouldNotBeReadAreAnErrorAndNotAbsent) {
  struct Case {
    const char* command;
    std::string accounts, out;
    int status;
  };
  const Case cases[] = {{"accounts", "", "", 1},
                        {"accounts", "u1=Ada", "u1  Ada\n", 1},
                        {"ls", "", "", 1},
                        {"ls", "u1=Ada", "", 1},  // it may not be the only one
                        {"--account Eve ls", "u1=Ada", "", 1},
                        {"--account u1 ls empty", "u1=Ada", "", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.command) + " with " + c.accounts);
    auto given = environment(c.accounts);
    given["KZV_TEST_ACCOUNTS_ERROR"] = "the store cannot be read";
    std::istringstream words(c.command);
    const auto result = Program::run({std::istream_iterator<std::string>(words), {}}, given);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err.find("the store cannot be read (TestDomain 6)") != std::string::npos, c.status == 1)
        << result.err;
  }
}

TEST_F(KzvTest, EveryVerbHasHelpWithAnExample) {
  const auto help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* verb :
       {"accounts", "link", "unlink", "ls", "stat", "get", "put", "mkdir", "rm", "mv", "df"}) {
    EXPECT_NE(help.out.find(std::string("  ") + verb), std::string::npos) << verb;
    const auto own = run({verb, "--help"});
    EXPECT_EQ(own.status, 0) << verb;
    EXPECT_NE(own.out.find(std::string("Example:\n  kzv ") + verb), std::string::npos) << own.out;
  }
  EXPECT_TRUE(run({"--version"}).out.starts_with("kzv "));
}

TEST_F(KzvTest, OptionsReachTheBundleThroughTheEnvironment) {
  Program::Environment given = environment();
  given["KZV_APP_KEY"] = "from the environment";
  const auto result =
      Program::run({"--service", "http://127.0.0.1:9", "--home", "relative", "accounts"}, given);
  EXPECT_EQ(result.status, 0) << result.err;
  const std::string expected = "service=http://127.0.0.1:9 key=from the environment home=" +
                               (fs::current_path() / "relative").string() + "\n";
  EXPECT_TRUE(events().starts_with(expected)) << events();
  fs::remove_all("relative");
}

TEST_F(KzvTest, UnlinkWaitsForBackgroundWorkAndOthersDoNot) {
  EXPECT_EQ(run({"unlink", "u1"}).status, 0);
  EXPECT_NE(events().find("unlink u1\nfinished\n"), std::string::npos) << events();
  fs::remove(events_);
  EXPECT_EQ(run({"ls"}).status, 0);
  EXPECT_NE(events().find("volume u1 is gone\n"), std::string::npos)
      << "the volume is released before the end";
  EXPECT_EQ(events().find("finished"), std::string::npos);
}

TEST_F(KzvTest, ABundleThatCannotBeLoadedIsOneLine) {
  Program::Environment given = environment();
  given["KZV_BUNDLE"] = (base_ / "no.bundle").string();
  const auto result = Program::run({"ls"}, given);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kzv: ls: no plug-in bundle at " + given["KZV_BUNDLE"] + " (KZVPluginLoaderErrorDomain 1)\n");
}

TEST_F(KzvTest, JsonOfOddNamesCanBeParsed) {
  file("odd/a\nb", 1);
  file("odd/\xff\"\\", 1);
  const auto result = run({"--json", "ls", "/odd"});
  std::vector<std::string> names;
  for (std::size_t at = 0; at < result.out.size();) {
    const std::size_t end = result.out.find('\n', at);
    const auto value = boost::json::parse(result.out.substr(at, end - at));
    names.emplace_back(value.at("name").as_string());
    at = end + 1;
  }
  EXPECT_EQ(names, (std::vector<std::string>{"a\nb", "\uFFFD\"\\"}));
}

TEST_F(KzvTest, ALargeListingIsComplete) {
  folder("many-files");
  const auto result = run({"--json", "ls", "/many-files"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 50'000);
}

TEST_F(KzvTest, AReaderThatHasGoneIsNoFailure) {
  folder("many-files");
  Program program({"ls", "/many-files"}, environment());
  ASSERT_TRUE(program.waitForOutput("file 0\n"));
  program.closeOutput();
  const auto result = program.finish();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}

TEST_F(KzvTest, AFullDiskUnderTheOutputIsAFailure) {
  const auto result = Program::run({"ls"}, environment(), {}, "/dev/full");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "kzv: ls: standard output: No space left on device (NSPOSIXErrorDomain 28)\n");
}

TEST_F(KzvTest, ASignalEndsItEvenWhileTheServiceIsSilent) {
  file("walk/a", 1);
  folder("walk/hang-here");
  for (const int number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(number);
    Program program({"ls", "-R", "/walk"}, environment());
    ASSERT_TRUE(program.waitForOutput("/walk/hang-here/\n")) << "what is known is shown before the wait";
    program.signal(number);
    const auto result = program.finish();  // the listing would never end by itself
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "kzv: ls: /walk/hang-here: stopped (CanceledByUserErrorDomain -1)\n");
  }
}

TEST_F(KzvTest, ASignalEndsItAlsoWhileNobodyReadsItsOutput) {
  folder("many-files");
  Program program({"ls", "/many-files"}, environment());
  ASSERT_TRUE(program.waitForOutput("file 0\n"));  // and then no more: the pipe is full now, or soon
  program.signal(SIGINT);
  EXPECT_TRUE(program.endsUnread(std::chrono::seconds(20)));
  EXPECT_EQ(program.finish().status, 130);
}

TEST_F(KzvTest, ASecondSignalEndsItAtOnce) {
  folder("walk/hang-here");
  Program program({"ls", "-R", "/walk"}, environment());
  ASSERT_TRUE(program.waitForOutput("/walk/hang-here/\n"));
  program.signal(SIGINT);
  program.signal(SIGTERM);  // another number: two of one kind could arrive as one
  const auto result = program.finish();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.err, "") << "nobody waited for the work to stop";
}

TEST_F(KzvTest, ATokenThatIsNotTypedIsNotWaitedForAfterAStop) {
  Program program({"link", "--token-stdin"}, environment(""));
  ASSERT_TRUE(Program::waitForFile(events_, "service="));
  program.signal(SIGINT);
  const auto result = program.finish(std::chrono::seconds(30), Program::Input::keepOpen);
  EXPECT_EQ(result.status, 130);
}

TEST_F(KzvTest, AVolumeWithoutVersionsCanBeMounted) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse cannot be opened";
  constexpr std::size_t largeBytes = 300'000;
  file("Documents/large", largeBytes);
  const fs::path place = base_ / "place";
  fs::create_directories(place);
  ASSERT_EQ(run({"mount", place.string()}).status, 0);
  EXPECT_EQ(contentOf(place / "Documents/report.txt"), std::string(1234, 'x'));
  std::ifstream open(place / "Documents/large");
  EXPECT_EQ(open.get(), 'x');
  EXPECT_TRUE(fs::remove(place / "Documents/large"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(open), {}).size(), largeBytes - 1);
  open.close();
  std::ofstream(place / "empty/new") << "first";
  std::ofstream(place / "empty/new", std::ios::app) << " and second";
  EXPECT_EQ(contentOf(tree_ / "empty/new"), "first and second");
  EXPECT_EQ(contentOf(place / "empty/new"), "first and second");
  fs::rename(place / "empty/new", place / "Documents/report.txt");
  EXPECT_EQ(contentOf(tree_ / "Documents/report.txt"), "first and second");
  EXPECT_EQ(run({"umount", place.string()}).status, 0);
}

}  // namespace

}  // namespace kzv::cli
