#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kzv/testing/KzvTest.h"

namespace kzv::cli {

namespace {

namespace fs = std::filesystem;

/// A folder of this computer beside the volume.
class TransferTest : public KzvTest {
 protected:
  TransferTest() { fs::create_directories(local_); }
  std::string at(const std::string& name) const { return (local_ / name).string(); }
  /// Words with "LOCAL/" stand for the local folder.
  std::vector<std::string> resolved(std::vector<std::string> words) const {
    for (std::string& word : words)
      if (word.starts_with("LOCAL/")) word = at(word.substr(6));
    return words;
  }
  const fs::path local_ = base_ / "local";
};

const std::string report(1234, 'x');
const std::string notFound = "No such file or directory (NSPOSIXErrorDomain 2)\n";

std::string emptyPath(const std::string& verb) {
  return "kzv: " + verb + ": an empty path names nothing (KZVHostErrorDomain 3)\n";
}

TEST_F(TransferTest, EachCommandChangesWhatItShould) {
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    int status;
    std::string err = {};  // "LOCAL/" stands for the local folder
    std::string out = {};
    KzvTest::Tree local = {};
  };
  const KzvTest::Tree documents{{"Documents/", ""},
                                {"Documents/Sub/", ""},
                                {"Documents/Sub/deep.txt", "xxxxx"},
                                {"Documents/report.txt", report},
                                {"Documents/timeless-note", ""}};
  const Case cases[] = {
      {"get a file into a folder",
       {"get", "/Documents/report.txt", "LOCAL/"},
       0,
       "",
       "/Documents/report.txt  1 KB\n",
       {{"report.txt", report}}},
      {"get a file under a new name",
       {"get", "/Documents/report.txt", "LOCAL/new"},
       0,
       "",
       "/Documents/report.txt  1 KB\n",
       {{"new", report}}},
      {"get as JSON",
       {"--json", "get", "/Documents/Sub", "LOCAL/"},
       0,
       "",
       "{\"path\":\"/Documents/Sub/deep.txt\",\"size\":5}\n",
       {{"Sub/", ""}, {"Sub/deep.txt", "xxxxx"}}},
      {"get quietly", {"--quiet", "get", "/Documents", "LOCAL/"}, 0, "", "", documents},
      {"get into a folder that is not there",
       {"get", "/Documents", "LOCAL/no/where"},
       1,
       "kzv: get: LOCAL/no/where: " + notFound},
      {"get what is not there",
       {"get", "/none", "LOCAL/"},
       1,
       "kzv: get: /none: no such file or folder (NSPOSIXErrorDomain 2)\n"},
      {"get with a file that fails",
       {"get", "/mixed", "LOCAL/"},
       1,
       "kzv: get: /mixed/fail-x: this item always fails (TestDomain 7)\n",
       "/mixed/good  1 byte\n",
       {{"mixed/", ""}, {"mixed/good", "x"}}},
      {"get nothing", {"get", "", "LOCAL/"}, 2, emptyPath("get")},
      {"get to nowhere", {"get", "/Documents", ""}, 2, emptyPath("get")},
      {"put nothing", {"put", "", "/"}, 2, emptyPath("put")},
      {"put nowhere", {"put", "LOCAL/", ""}, 2, emptyPath("put")},
      {"put into a folder that is not there",
       {"put", "LOCAL/", "/nope/x"},
       1,
       "kzv: put: /nope: no such file or folder (NSPOSIXErrorDomain 2)\n"},
      {"put into a folder that is not there, under its own name",
       {"put", "LOCAL/", "/nope/"},
       1,
       "kzv: put: /nope: no such file or folder (NSPOSIXErrorDomain 2)\n"},
      {"put below a file",
       {"put", "LOCAL/", "/Documents/report.txt/x"},
       1,
       "kzv: put: /Documents/report.txt: Not a directory (NSPOSIXErrorDomain 20)\n"},
      {"record no account as the desktop client's",
       {"desktop", "--set", ""},
       2,
       "kzv: desktop: --set: must not be empty; see kzv desktop --help\n"},
      {"list nothing", {"ls", ""}, 2, emptyPath("ls")},
      {"unmount nothing", {"umount", ""}, 2, emptyPath("umount")},
      {"move nowhere", {"mv", "/Documents", ""}, 2, emptyPath("mv")},
      {"mv into a folder that is not there",
       {"mv", "/Documents/report.txt", "/nope/x"},
       1,
       "kzv: mv: /nope: no such folder (NSPOSIXErrorDomain 2)\n"},
      {"mv into a file",
       {"mv", "/Documents/Sub", "/Documents/report.txt/x"},
       1,
       "kzv: mv: /Documents/report.txt: not a folder (NSPOSIXErrorDomain 20)\n"},
      {"put what is not there", {"put", "LOCAL/none", "/"}, 1, "kzv: put: LOCAL/none: " + notFound},
      {"put refused",
       {"put", "LOCAL/", "/fail-here"},
       1,
       "kzv: put: LOCAL/: this item always fails (TestDomain 7)\n"},
      {"rm the root",
       {"rm", "-f", "/"},
       2,
       "kzv: rm: /: the root folder cannot be removed (KZVHostErrorDomain 3)\n"},
      {"mv the root",
       {"mv", "/", "/x"},
       2,
       "kzv: mv: /: the root folder cannot be moved (KZVHostErrorDomain 3)\n"},
      {"mkdir refused",
       {"mkdir", "/fail-x"},
       1,
       "kzv: mkdir: /fail-x: this item always fails (TestDomain 7)\n"}};
  file("mixed/good", 1);
  file("mixed/fail-x", 1);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(local_);
    fs::create_directories(local_);
    const KzvTest::Tree before = treeAt(tree_);
    const auto result = run(resolved(c.arguments));
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    std::string expected = c.err;
    if (const auto place = expected.find("LOCAL/"); place != std::string::npos)
      expected.replace(place, 6, at(""));
    if (std::string(c.name) == "put refused") expected.erase(expected.find("local/") + 5, 1);
    EXPECT_EQ(result.err, expected);
    EXPECT_EQ(treeAt(local_), c.local);
    EXPECT_EQ(treeAt(tree_), before) << "the account";
  }
}

TEST_F(TransferTest, TreeChangesReachTheAccount) {
  fs::create_directories(local_ / "in/deep");
  std::ofstream(local_ / "in/a") << "A";
  std::ofstream(local_ / "in/deep/b") << "BB";
  fs::create_directories(local_ / "two");
  std::ofstream(local_ / "two/changed-b") << "B";
  fs::create_directory_symlink("in/deep", local_ / "link");
  file("old", 3);
  struct Step {
    std::vector<std::string> arguments;
    std::string out;
    std::vector<std::string> there;
    std::vector<std::string> gone;
    std::string err{};
  };
  const std::string elsewhere = ": was changed elsewhere meanwhile; stored beside it as ";
  const Step steps[] = {
      {{"put", "LOCAL/in/a", "/"}, "/a  1 byte\n", {"a"}, {}},
      {{"put", "LOCAL/in/a", "/empty"}, "/empty/a  1 byte\n", {"empty/a"}, {}},
      {{"put", "LOCAL/in/a", "/renamed"}, "/renamed  1 byte\n", {"renamed"}, {}},
      {{"--json", "put", "LOCAL/in/deep", "/Documents"},
       "{\"path\":\"/Documents/deep/b\",\"size\":2}\n",
       {"Documents/deep/b"},
       {}},
      {{"--quiet", "put", "LOCAL/in", "/whole"}, "", {"whole/a", "whole/deep/b"}, {}},
      {{"put", "LOCAL/in/a", "/changed-a"},
       "/changed-a (1)  1 byte\n",
       {"changed-a (1)"},
       {},
       "kzv: put: /changed-a" + elsewhere + "/changed-a (1)\n"},
      {{"--quiet", "--json", "put", "LOCAL/two", "/two"},
       "{\"path\":\"/two/changed-b (1)\",\"size\":1,\"conflicts_with\":\"/two/changed-b\"}\n",
       {"two/changed-b (1)"},
       {},
       "kzv: put: /two/changed-b" + elsewhere + "/two/changed-b (1)\n"},
      {{"put", "LOCAL/link", "/linked"}, "/linked/b  2 bytes\n", {"linked/b"}, {}},
      {{"mkdir", "/new", "/new"}, "", {"new"}, {}},
      {{"mv", "/a", "/new"}, "", {"new/a"}, {"a"}},
      {{"mv", "/new/a", "/b"}, "", {"b"}, {"new/a"}},
      {{"mv", "/b", "/B"}, "", {"B"}, {"b"}},
      {{"mv", "/new", "/NEW/"}, "", {"NEW"}, {"new"}},
      {{"rm", "/old", "/whole"}, "", {}, {"old", "whole"}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.arguments[0] + " " + step.arguments[1]);
    const auto result = run(resolved(step.arguments));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, step.out);
    EXPECT_EQ(result.err, step.err);
    for (const std::string& path : step.there) EXPECT_TRUE(fs::exists(tree_ / path)) << path;
    for (const std::string& path : step.gone) EXPECT_FALSE(fs::exists(tree_ / path)) << path;
  }
}

TEST_F(TransferTest, ASignalEndsACopyCleanly) {
  file("slow/endless-a", 10);
  file("slow/endless-b", 10);
  file("slow/quick", 10);
  fs::create_directories(local_ / "up");
  std::ofstream(local_ / "up/endless-c") << "C";
  std::ofstream(local_ / "up/quick") << "C";
  struct Case {
    std::vector<std::string> arguments;
    const char* firstLine;
    std::string err;
  };
  const Case cases[] = {{{"get", "/slow", "LOCAL/"},
                         "/slow/quick  10 bytes\n",
                         "kzv: get: /slow: stopped (CanceledByUserErrorDomain -1)\n"},
                        {{"put", "LOCAL/up", "/up"},
                         "/up/quick  1 byte\n",
                         "kzv: put: " + at("up") + ": stopped (CanceledByUserErrorDomain -1)\n"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments[0]);
    Program program(resolved(c.arguments), environment());
    ASSERT_TRUE(program.waitForOutput(c.firstLine)) << "a line appears when its file is there";
    program.signal(SIGINT);
    const auto result = program.finish();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, c.err);
    EXPECT_NE(events().find("volume u1 is gone"), std::string::npos) << "ended in order, not cut off";
  }
  EXPECT_EQ(treeAt(local_ / "slow"), (KzvTest::Tree{{"quick", std::string(10, 'x')}}));
  EXPECT_FALSE(fs::exists(tree_ / "up/endless-c"));
  EXPECT_TRUE(fs::is_empty(home_ / "cache/tmp")) << "temporary files are gone";
}

TEST_F(TransferTest, ATerminalShowsHowFarItIsAndTakesCtrlC) {
  file("endless-a", 20'000'000);
  std::ofstream(local_ / "endless-b").close();
  fs::resize_file(local_ / "endless-b", 20'000'000);
  file("quick", 1234);
  auto variables = environment();
  variables["TERM"] = "xterm";
  {
    Program program(Program::OnTerminal{}, resolved({"get", "/quick", "LOCAL/"}), variables);
    const std::string shown = program.finish().out;
    EXPECT_NE(shown.find("1 file, 1 KB in 0:0"), std::string::npos) << shown;
    EXPECT_EQ(shown.find("/quick"), std::string::npos)
        << "lines are for those who cannot see the bar: " << shown;
  }
  struct Case {
    std::vector<std::string> arguments;
    std::string stopped;
  };
  const Case cases[] = {{{"get", "/endless-a", "LOCAL/"}, "kzv: get: /endless-a: stopped"},
                        {{"put", "LOCAL/endless-b", "/"}, "kzv: put: " + at("endless-b") + ": stopped"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments[0]);
    Program program(Program::OnTerminal{}, resolved(c.arguments), variables);
    for (const char* part : {"[#", "%  ", " MB of 20 MB  ", "MB/s  0:", " left"}) {
      ASSERT_TRUE(program.waitForNext(part)) << part;
    }
    program.type("\x03");
    const auto result = program.finish();  // the transfer would never end by itself
    EXPECT_EQ(result.status, 130);
    EXPECT_NE(result.out.find(c.stopped), std::string::npos) << result.out;
  }
  EXPECT_NE(events().find("volume u1 is gone"), std::string::npos) << "ended in order, not cut off";
  EXPECT_EQ(treeAt(local_).size(), 2U) << "quick and endless-b";
  EXPECT_FALSE(fs::exists(tree_ / "endless-b"));
  EXPECT_TRUE(fs::is_empty(home_ / "cache/tmp"));
}

}  // namespace

}  // namespace kzv::cli
