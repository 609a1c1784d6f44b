#include <boost/json.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/testing/KzvTest.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

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
    const char* name;
    std::vector<std::string> arguments;
    std::string accounts;
    std::string input;
    int status;
    std::string out;
    std::string err;
  };
  const Case cases[] = {
      {"accounts", {"accounts"}, "u1=Ada,user2=Bob", "", 0, "u1     Ada\nuser2  Bob\n", ""},
      {"accounts as JSON",
       {"--json", "accounts"},
       "u1=Ada,u2",
       "",
       0,
       "{\"id\":\"u1\",\"label\":\"Ada\",\"available\":true}\n{\"id\":\"u2\",\"label\":\"u2\",\"available\":"
       "false}\n",
       ""},
      {"no accounts", {"accounts"}, "", "", 0, "", "no account is linked; link one with: kzv link\n"},
      {"no accounts, quiet", {"--quiet", "accounts"}, "", "", 0, "", ""},
      {"ls of the root is the default",
       {"ls"},
       "u1",
       "",
       0,
       "Documents/\nempty/\nfail-file\nfail-folder/\nodd/\nunlink-me/\nwalk/\n",
       ""},
      {"ls -l",
       {"ls", "-l", "Documents"},
       "u1",
       "",
       0,
       "   -  2024-05-01 09:30  Sub/\n1234  2024-05-01 09:30  report.txt\n   0  -                 "
       "timeless-note\n",
       ""},
      {"ls -R gives full paths, a folder before its items",
       {"ls", "-R", "/Documents"},
       "u1",
       "",
       0,
       "/Documents/Sub/\n/Documents/Sub/deep.txt\n/Documents/report.txt\n/Documents/timeless-note\n",
       ""},
      {"ls as JSON",
       {"--json", "ls", "/Documents"},
       "u1",
       "",
       0,
       "{\"path\":\"/Documents/"
       "Sub\",\"name\":\"Sub\",\"dir\":true,\"size\":0,\"modified\":\"2024-05-01T09:30:00Z\"}\n"
       "{\"path\":\"/Documents/report.txt\",\"name\":\"report.txt\",\"dir\":false,\"size\":1234,"
       "\"modified\":\"2024-05-01T09:30:00Z\"}\n"
       "{\"path\":\"/Documents/timeless-note\",\"name\":\"timeless-note\",\"dir\":false,\"size\":0}\n",
       ""},
      {"ls of an empty folder", {"ls", "/empty"}, "u1", "", 0, "", ""},
      {"ls of a file", {"ls", "Documents/report.txt"}, "u1", "", 0, "report.txt\n", ""},
      {"ls of several",
       {"ls", "/empty", "/Documents/Sub"},
       "u1",
       "",
       0,
       "/empty:\n\n/Documents/Sub:\ndeep.txt\n",
       ""},
      {"ls of odd names is harmless", {"ls", "odd"}, "u1", "", 0, "\\x1b[31mred\na\\nb\n\\xff\n", ""},
      {"ls of what is not there",
       {"ls", "/nowhere"},
       "u1",
       "",
       1,
       "",
       "kzv: ls: /nowhere: no such file or folder (NSPOSIXErrorDomain 2)\n"},
      {"ls of a failing folder",
       {"ls", "/fail-folder"},
       "u1",
       "",
       1,
       "",
       "kzv: ls: /fail-folder: this item always fails (TestDomain 7)\n"},
      {"ls -R goes on after a failing folder",
       {"ls", "-R", "/walk"},
       "u1",
       "",
       1,
       "/walk/fail-here/\n/walk/z\n",
       "kzv: ls: /walk/fail-here: this item always fails (TestDomain 7)\n"},
      {"ls goes on with the next path",
       {"ls", "/nowhere", "/Documents/Sub"},
       "u1",
       "",
       1,
       "/nowhere:\n\n/Documents/Sub:\ndeep.txt\n",
       "kzv: ls: /nowhere: no such file or folder (NSPOSIXErrorDomain 2)\n"},
      {"ls above the root",
       {"ls", "/.."},
       "u1",
       "",
       2,
       "",
       "kzv: ls: /..: not a path: it must be valid UTF-8 and stay below \"/\" (KZVHostErrorDomain 3)\n"},
      {"an account unlinked meanwhile",
       {"ls", "/unlink-me"},
       "u1",
       "",
       3,
       "",
       "kzv: ls: /unlink-me: the account u1 is no longer linked (KZVHostErrorDomain 2)\n"},
      {"stat",
       {"stat", "/Documents/report.txt", "Documents"},
       "u1",
       "",
       0,
       "/Documents/report.txt\n  kind      file\n  size      1234 bytes (1 KB)\n"
       "  modified  2024-05-01 09:30  (2024-05-01T09:30:00Z)\n"
       "/Documents\n  kind      folder\n  modified  2024-05-01 09:30  (2024-05-01T09:30:00Z)\n",
       ""},
      {"stat as JSON",
       {"--json", "stat", "/"},
       "u1",
       "",
       0,
       "{\"path\":\"/\",\"name\":\"/\",\"dir\":true,\"size\":0",
       ""},
      {"stat of a failing file",
       {"stat", "/fail-file"},
       "u1",
       "",
       1,
       "",
       "kzv: stat: /fail-file: this item always fails (TestDomain 7)\n"},
      {"stat of what is not there",
       {"stat", "/nowhere"},
       "u1",
       "",
       1,
       "",
       "kzv: stat: /nowhere: no such file or folder (NSPOSIXErrorDomain 2)\n"},
      {"no account linked",
       {"ls"},
       "",
       "",
       3,
       "",
       "kzv: ls: no account is linked; link one with: kzv link (KZVHostErrorDomain 1)\n"},
      {"several accounts, none chosen",
       {"ls"},
       "u1=Ada,u2",
       "",
       3,
       "",
       "kzv: ls: several accounts are linked, choose one with --account: u1 (Ada), u2 (KZVHostErrorDomain "
       "1)\n"},
      {"chosen by id", {"--account", "u2", "ls", "/Documents/Sub"}, "u1=Ada,u2", "", 0, "deep.txt\n", ""},
      {"chosen by label",
       {"--account", "Bob", "ls", "/Documents/Sub"},
       "u1=Ada,u2=Bob",
       "",
       0,
       "deep.txt\n",
       ""},
      {"label of two",
       {"--account", "Ada", "ls"},
       "u1=Ada,u2=Ada",
       "",
       3,
       "",
       "kzv: ls: several accounts are called \"Ada\", choose one by its id: u1 (Ada), u2 (Ada) "
       "(KZVHostErrorDomain 1)\n"},
      {"unknown account",
       {"--account", "Eve", "ls"},
       "u1=Ada",
       "",
       3,
       "",
       "kzv: ls: no account \"Eve\"; linked are: u1 (Ada) (KZVHostErrorDomain 1)\n"},
      {"link", {"link", "--token-stdin"}, "", "  \n t0ken\n\n", 0, "linked 5 characters (fresh)\n", ""},
      {"link as JSON",
       {"--json", "link", "--token-stdin"},
       "",
       "{\"access_token\": \"x\"}",
       0,
       "{\"id\":\"fresh\",\"label\":\"21 characters\"}\n",
       ""},
      {"link with nothing",
       {"link", "--token-stdin"},
       "",
       " \n",
       2,
       "",
       "kzv: link: standard input holds no token (KZVHostErrorDomain 3)\n"},
      {"link with too much",
       {"link", "--token-stdin"},
       "",
       std::string(70'000, 'x'),
       2,
       "",
       "kzv: link: standard input holds more than 64 KiB: that is no token (KZVHostErrorDomain 3)\n"},
      {"link refused",
       {"link", "--token-stdin"},
       "",
       "refused",
       1,
       "",
       "kzv: link: the token is not accepted (TestDomain 401)\n"},
      {"unlink", {"unlink", "u2"}, "u1=Ada,u2", "", 0, "unlinked u2\n", ""},
      {"unlink by label", {"unlink", "Ada"}, "u1=Ada,u2", "", 0, "unlinked u1\n", ""},
      {"unlink of an unknown account",
       {"unlink", "Eve"},
       "u1=Ada",
       "",
       3,
       "",
       "kzv: unlink: Eve: no account \"Eve\"; linked are: u1 (Ada) (KZVHostErrorDomain 1)\n"},
      {"unlink does not guess",
       {"unlink"},
       "u1=Ada",
       "",
       2,
       "",
       "kzv: unlink: ID is required; see kzv unlink --help\n"},
      {"df", {"df"}, "u1", "", 0, "total  2 GB\nfree   -1.5 MB\n", ""},
      {"df as JSON", {"--json", "df"}, "u1", "", 0, "{\"total\":2000000000,\"free\":-1500000}\n", ""},
      {"no verb", {}, "", "", 2, "", "kzv: no verb given; see kzv --help\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto result = run(c.arguments, c.accounts, c.input);
    EXPECT_EQ(result.status, c.status);
    if (std::string(c.name) == "stat as JSON") {
      EXPECT_TRUE(result.out.starts_with(c.out)) << result.out;
    } else {
      EXPECT_EQ(result.out, c.out);
    }
    EXPECT_EQ(result.err, c.err);
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

TEST_F(KzvTest, ALargeListingIsCompleteAndQuick) {
  folder("many-files");
  const auto before = Clock::now();
  const auto result = run({"--json", "ls", "/many-files"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 50'000);
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
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

TEST_F(KzvTest, ASignalEndsItWithinAQuarterOfASecondEvenWhileTheServiceIsSilent) {
  file("walk/a", 1);
  folder("walk/hang-here");
  for (const int number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(number);
    Program program({"ls", "-R", "/walk"}, environment());
    ASSERT_TRUE(program.waitForOutput("/walk/hang-here/\n")) << "what is known is shown before the wait";
    const auto before = Clock::now();
    program.signal(number);
    const auto result = program.finish();
    const auto needed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before).count();
    EXPECT_LT(needed, 250) << "milliseconds";
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "kzv: ls: /walk/hang-here: stopped (CanceledByUserErrorDomain -1)\n");
  }
}

TEST_F(KzvTest, ASignalEndsItAlsoWhileNobodyReadsItsOutput) {
  folder("many-files");
  Program program({"ls", "/many-files"}, environment());
  ASSERT_TRUE(program.waitForOutput("file 0\n"));  // and then no more: the pipe is full now, or soon
  program.signal(SIGINT);
  EXPECT_TRUE(program.endsUnread(std::chrono::seconds(5)));
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

}  // namespace
