#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kzv/testing/KzvTest.h"

namespace kzv::cli {

namespace {

namespace fs = std::filesystem;

class ShellTest : public KzvTest {
 protected:
  Program::Environment onTerminal(const std::string& accounts = "u1=Ada") const {
    Program::Environment all = environment(accounts);
    all["TERM"] = "xterm";
    all["HOME"] = home_.string();  // no key bindings of the person who runs the tests
    return all;
  }
  std::string history() const { return contentOf(historyFile_); }
  const fs::path historyFile_ = home_ / "state/shell-history";
};

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t times = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++times;
  return times;
}

TEST_F(ShellTest, AScriptRunsLineByLine) {
  folder("My Papers");
  file("My Papers/a b", 2);
  struct Case {
    const char* name;
    std::string script;
    int status = 0;
    std::string out = {};
    std::string err = {};
    std::string accounts = "u1";
    std::vector<std::string> arguments = {};  // before the word shell
  };
  const std::string notThere = ": no such file or folder (NSPOSIXErrorDomain 2)\n";
  const Case cases[] = {
      {"paths count from the current folder",
       "cd 'My Papers'\r\npwd\nls # all\nls ../Documents/Sub\ncd ../Documents/\nls Sub /empty\nmkdir new\n"
       "mv new /My\\ Papers\nls ..\ncd\nkzv pwd\ncd ~",
       1,
       "/My Papers\na b\ndeep.txt\n/Documents/Sub:\ndeep.txt\n\n/empty:\nDocuments/\nMy Papers/\nempty/\n/\n",
       "kzv: cd: HOME" + notThere},
      {"the last failure decides the status",
       "ls /none\nls --bad\ncd Documents/report.txt\ncd none\nls 'x\nls /empty\n", 2, "",
       "kzv: ls: /none" + notThere +
           "kzv: ls: The following argument was not expected: --bad; see help ls\n"
           "kzv: cd: /Documents/report.txt: Not a directory (NSPOSIXErrorDomain 20)\n"
           "kzv: cd: /none" +
           notThere + "kzv: shell: line 5: a single quote is not closed (KZVHostErrorDomain 3)\n"},
      {"exit ends it", "\n  # nothing\nexit\nls /none\n"},
      {"options of the shell and of a line",
       "pwd\nls --home /x\nshell\n",
       2,
       "{\"path\":\"/\"}\n",
       "kzv: ls: --home applies to the whole shell: kzv --home ... shell\n"
       "kzv: shell: this is already the shell; exit leaves it (KZVHostErrorDomain 3)\n",
       "u1",
       {"--json"}},
      {"each account has its own folder",
       "pwd\nls\naccount Bob\ncd empty\n--account Ada cd Documents\npwd\npwd --account u1\naccount "
       "u1\naccount\n"
       "--account Eve ls\nunlink u1\npwd\n",
       3, "/\n/empty\n/Documents\nu1  Ada\nunlinked u1\n/empty\n",
       "kzv: ls: several accounts are linked, choose one with --account: u1 (Ada), u2 (Bob) "
       "(KZVHostErrorDomain 1)\n"
       "kzv: ls: no account \"Eve\"; linked are: u1 (Ada), u2 (Bob) (KZVHostErrorDomain 1)\n",
       "u1=Ada,u2=Bob"},
      {"an account that does not exist",
       "pwd\n",
       3,
       "",
       "kzv: shell: no account \"Eve\"; linked are: u1 (Ada) (KZVHostErrorDomain 1)\n",
       "u1=Ada",
       {"--account", "Eve"}},
      {"commands do not read the script", "link --token-stdin\npwd\n", 2, "/\n",
       "kzv: link: standard input has no token (KZVHostErrorDomain 3)\n", ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto arguments = c.arguments;
    arguments.emplace_back("shell");
    auto result = Program::run(arguments, onTerminal(c.accounts), c.script);
    const std::size_t home = result.err.find(home_.string());
    if (home != std::string::npos) result.err.replace(home, home_.string().size(), "HOME");
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
  }
  EXPECT_FALSE(fs::exists(historyFile_)) << "scripts have no history";
}

TEST_F(ShellTest, AllLinesShareOneVolumeAndAnUnlinkedOneGoes) {
  const auto result = run({"shell"}, "u1=Ada", "ls\nls Documents\nstat /empty\nunlink u1\naccounts\nls\n");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(count(events(), "volume u1 is gone"), 1U) << events();
  EXPECT_LT(events().find("volume u1 is gone"), events().find("finished")) << events();
}

TEST_F(ShellTest, ASignalEndsAScript) {
  folder("hang-here");
  Program program({"shell"}, environment());
  program.type("ls /Documents/Sub\nls /hang-here\npwd\n");
  ASSERT_TRUE(Program::waitForFile(events_, "hangs"));
  program.signal(SIGINT);
  const auto result = program.finish();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.out, "deep.txt\n");
  EXPECT_EQ(result.err, "kzv: shell: ls: stopped (CanceledByUserErrorDomain -1)\n");
}

TEST_F(ShellTest, ATerminalHasPromptCompletionAndHistory) {
  folder("My Papers/\xC3\x84ther");
  file("My Papers/\xC3\x84ther/note", 1);
  {
    Program program(Program::OnTerminal{}, {"shell"}, onTerminal());
    ASSERT_TRUE(program.waitForNext("Ada:/> "));
    program.type("mk\tnew\\ one\n");  // a verb
    ASSERT_TRUE(program.waitForNext("Ada:/> "));
    EXPECT_TRUE(fs::is_directory(tree_ / "new one"));
    program.type("cd my\t\xC3\x84\t\n");  // folders; the letter case is mended
    ASSERT_TRUE(program.waitForNext("Ada:/My Papers/\xC3\x84ther> "));
    program.type("stat \t\n");  // a path that counts from the current folder
    ASSERT_TRUE(program.waitForNext("/My Papers/\xC3\x84ther/note\r\n"));
    ASSERT_TRUE(program.waitForNext("ther> "));
    program.type("cd /\ncd \t");  // several fit, in columns
    ASSERT_TRUE(program.waitForNext("Documents/  My Papers/  empty/      new one/"));
    program.type("\x03");  // Ctrl-C gives the line up
    ASSERT_TRUE(program.waitForNext("^C\r\nAda:/> "));
    program.type("5up3r-secret\n");  // pasted too late
    ASSERT_TRUE(program.waitForNext("no verb"));
    program.type("link --token-stdin\n");
    ASSERT_TRUE(program.waitForNext("(not shown)"));
    program.type("5up3r-secret\n");
    ASSERT_TRUE(program.waitForNext("linked 12 characters (fresh)"));
    ASSERT_TRUE(program.waitForNext("Ada:/> "));
    program.type(" ls empty\npwd\n");
    ASSERT_TRUE(program.waitForNext("Ada:/> pwd\r\n/\r\nAda:/> "));
    program.type("\x04");
    EXPECT_EQ(program.finish().status, 0) << "failures of single lines are the person's to see";
  }
  const std::string kept = "mkdir new\\ one\ncd My\\ Papers/\xC3\x84ther/\nstat note \ncd /\npwd\n";
  EXPECT_EQ(history(), kept);
  EXPECT_EQ(fs::status(historyFile_).permissions(), fs::perms::owner_read | fs::perms::owner_write);

  std::string many;
  for (int i = 0; i < 1500; ++i) many += "ls " + std::to_string(i) + "\n";
  std::ofstream(historyFile_) << many << "stat /Documents\n";
  {
    Program program(Program::OnTerminal{}, {"shell"}, onTerminal());
    ASSERT_TRUE(program.waitForNext("Ada:/> "));
    program.type("\x1b[A\n");
    ASSERT_TRUE(program.waitForNext("kind      folder"));
    program.type("exit\n");
    EXPECT_EQ(program.finish().status, 0);
  }
  EXPECT_EQ(count(history(), "\n"), 1001U) << "cut to the newest thousand at the start";
  EXPECT_TRUE(history().ends_with("ls 1499\nstat /Documents\nexit\n"));
}

TEST_F(ShellTest, CtrlCEndsTheCommandAndNotTheShell) {
  file("endless-a", 10);
  folder("hang-here");
  Program program(Program::OnTerminal{}, {"shell"}, onTerminal());
  ASSERT_TRUE(program.waitForNext("Ada:/> "));
  for (int round = 0; round < 2; ++round) {
    program.type("get endless-a " + base_.string() + "\n");
    ASSERT_TRUE(program.waitForNext("%"));
    EXPECT_TRUE(program.isTerminalInUsualState());
    program.type("\x03");
    ASSERT_TRUE(program.waitForNext("kzv: get: /endless-a: stopped (CanceledByUserErrorDomain -1)\r\n"));
    ASSERT_TRUE(program.waitForNext("Ada:/> "));
  }
  program.type("rm empty\n");
  ASSERT_TRUE(program.waitForNext("[y/N] "));
  program.type("\x03");
  ASSERT_TRUE(program.waitForNext("kzv: rm: /empty: stopped"));
  ASSERT_TRUE(program.waitForNext("Ada:/> "));
  program.type("ls hang-here/\t");  // a completion that never comes
  ASSERT_TRUE(Program::waitForFile(events_, "hangs"));
  program.type("\x03");
  ASSERT_TRUE(program.waitForNext("Ada:/> "));
  fs::remove(events_);
  program.type("ls hang-here\n");
  ASSERT_TRUE(Program::waitForFile(events_, "hangs"));
  program.type("\x03");
  ASSERT_TRUE(program.waitForNext("another Ctrl-C ends kzv"));
  program.type("\x03");
  EXPECT_EQ(program.finish().status, 130);
  EXPECT_TRUE(fs::is_directory(tree_ / "empty"));
}

TEST_F(ShellTest, ASignalAtThePromptEndsItInOrder) {
  for (const int number : {SIGTERM, SIGHUP}) {
    SCOPED_TRACE(number);
    Program program(Program::OnTerminal{}, {"shell"}, onTerminal());
    ASSERT_TRUE(program.waitForNext("Ada:/> "));
    program.type("ls\nls Doc");
    ASSERT_TRUE(program.waitForNext("Ada:/> ls Doc"));
    EXPECT_FALSE(program.isTerminalInUsualState());
    program.signal(number);
    ASSERT_TRUE(Program::waitForFile(events_, "volume u1 is gone"));
    EXPECT_TRUE(program.isTerminalInUsualState());
    EXPECT_EQ(program.finish().status, 130);
    fs::remove(events_);
  }
}

TEST_F(ShellTest, SeveralAccountsAreToldAndOneCanBeSelected) {
  Program program(Program::OnTerminal{}, {"shell"}, onTerminal("u1=Ada,u2=Bob B"));
  ASSERT_TRUE(program.waitForNext("Several accounts are linked"));
  ASSERT_TRUE(program.waitForNext("kzv> "));
  program.type("accounts\n");  // waits until the accounts have names, which completion offers
  ASSERT_TRUE(program.waitForNext("Bob B"));
  ASSERT_TRUE(program.waitForNext("kzv> "));
  program.type("account Bo\t\n");
  ASSERT_TRUE(program.waitForNext("Bob B:/> "));
  program.type("unlink u2\n");
  ASSERT_TRUE(program.waitForNext("Ada:/> ")) << "the only one that is left";
  program.type("quit\n");
  EXPECT_EQ(program.finish().status, 0);
}

}  // namespace

}  // namespace kzv::cli
