#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/NSLog.h"
#include "sdk/credentials/CredentialStore.h"
#include "sdk/testing/ClientFixture.h"

namespace kzv::sdk {

namespace {

using Ids = std::vector<std::string>;

class FileStore : public ::testing::Test {
 protected:
  FileStore() { ::setenv("KZV_HOME", scratch.path().c_str(), 1); }
  std::unique_ptr<CredentialStore> open() const {
    return makeFileCredentialStore(scratch.path() + "/data", "app/key");
  }
  std::string folder() const { return scratch.path() + "/data/app_2fkey"; }
  std::string file() const { return folder() + "/accounts.json"; }
  Ids ids() const {
    const StoredAccounts stored = open()->load();
    Ids all;
    for (const DBCredential& credential : stored.credentials) all.push_back(credential.userId);
    if (stored.error) all.push_back("error " + std::to_string(stored.error->code()));
    return all;
  }
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
  }
  void save(const std::string& userId, const std::string& token = "t") const {
    NSErrorRef error;
    ASSERT_TRUE(open()->save({userId, token, "r", 7}, &error)) << error->localizedDescription();
  }
  TemporaryFolder scratch;
};

TEST_F(FileStore, KeepsAccountsInTheOrderOfLinking) {
  EXPECT_EQ(ids(), Ids());
  save("b");
  save("a");
  save("b", "newer \"token\"\n");
  EXPECT_EQ(ids(), (Ids{"b", "a"}));
  const auto stored = open()->load().credentials;
  EXPECT_EQ(stored.front().accessToken, "newer \"token\"\n");
  EXPECT_EQ(stored.front().refreshToken, "r");
  EXPECT_EQ(stored.front().expiresAtUnixSeconds, 7);
  ASSERT_TRUE(open()->remove("b", nullptr, nullptr));
  ASSERT_TRUE(open()->update({"b", "x", "r", 0}, nullptr));
  EXPECT_EQ(ids(), Ids{"a"}) << "an update must not bring an unlinked account back";
}

TEST_F(FileStore, ChangesOfAnOlderLinkingLeaveANewerOne) {
  save("a", "newer");
  const DBCredential older{"a", "older", "other refresh token", 0}, renewed{"a", "renewed", "r", 0};
  ASSERT_TRUE(open()->update(older, nullptr));
  ASSERT_TRUE(open()->remove("a", &older, nullptr));
  ASSERT_FALSE(open()->save({"b", "t", "r", 0}, nullptr, [] { return false; }));
  EXPECT_EQ(ids(), Ids{"a"});
  EXPECT_EQ(open()->load().credentials.front().accessToken, "newer");
  ASSERT_TRUE(open()->update(renewed, nullptr));
  EXPECT_EQ(open()->load().credentials.front().accessToken, "renewed");
  ASSERT_TRUE(open()->remove("a", &renewed, nullptr));
  EXPECT_EQ(ids(), Ids());
}

TEST_F(FileStore, IsForItsOwnerOnly) {
  const mode_t old = ::umask(0);
  save("a");
  ::umask(old);
  EXPECT_EQ(modeOf(folder()), 0700U);
  EXPECT_EQ(modeOf(file()), 0600U);
  ::chmod(folder().c_str(), 0755);
  ::chmod(file().c_str(), 0666);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ids(), Ids{"a"});
  EXPECT_EQ(modeOf(file()), 0600U);
  save("b");
  EXPECT_EQ(modeOf(folder()), 0700U);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("accounts.json was open to other users (mode 0666)"), std::string::npos) << log;
  EXPECT_NE(log.find("app_2fkey was open to other users (mode 0755)"), std::string::npos);
}

TEST_F(FileStore, AFileBehindALinkIsRefusedAndLeftAlone) {
  save("a");
  std::filesystem::rename(file(), scratch.path() + "/elsewhere");
  std::filesystem::create_symlink(scratch.path() + "/elsewhere", file());
  EXPECT_EQ(ids(), Ids{"error " + std::to_string(ELOOP)});
  EXPECT_FALSE(open()->save({"b", "t", "", 0}, nullptr));
  EXPECT_TRUE(std::filesystem::is_symlink(file()));
}

TEST_F(FileStore, WhatIsDamagedIsAnErrorUntilItIsReplacedAndThenKept) {
  struct Case {
    const char* name;
    const char* text;
    Ids readable;
  };
  const Case cases[] = {
      {"cut off", R"({"accounts":[ {"account_id":)", {}},
      {"no list", "{}", {}},
      {"one account without a token",
       R"({"accounts":[{"account_id":"x"},{"account_id":"a","access_token":"t"}]})",
       {"a"}},
  };
  int number = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    save("a");
    std::ofstream(file()) << c.text;
    Ids expected = c.readable;
    expected.push_back("error " + std::to_string(EBADMSG));
    EXPECT_EQ(ids(), expected);
    ASSERT_TRUE(open()->remove("unknown", nullptr, nullptr));
    EXPECT_EQ(ids(), expected) << "what changes nothing replaces nothing";
    save("b");
    expected.back() = "b";
    EXPECT_EQ(ids(), expected);
    std::stringstream aside;
    aside << std::ifstream(file() + ".damaged-" + std::to_string(++number)).rdbuf();
    EXPECT_EQ(aside.str(), c.text);
    ASSERT_TRUE(open()->remove("b", nullptr, nullptr));
  }
}

TEST_F(FileStore, WhatIsNoFileIsAnErrorAndStays) {
  ASSERT_TRUE(open()->remove("makes the folder", nullptr, nullptr));
  ASSERT_EQ(::mkdir(file().c_str(), 0700), 0);
  NSErrorRef error;
  EXPECT_FALSE(open()->save({"a", "t", "", 0}, &error));
  EXPECT_TRUE(error);
  EXPECT_EQ(modeOf(file()), 0700U);
}

/// Runs `body` in a process of its own; its exit status is what `body` returns.
template <class Body>
pid_t inChild(Body body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  return child;
}
int exitStatus(pid_t child) {
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FileStore, ProcessesAtOnceLoseNoAccount) {
  constexpr int processes = 4, accounts = 10;
  std::vector<pid_t> children;
  for (int p = 0; p < processes; ++p) {
    children.push_back(inChild([&] {
      for (int i = 0; i < accounts; ++i) {
        if (!open()->save({std::to_string(p) + "-" + std::to_string(i), "t", "", 0}, nullptr)) return 1;
      }
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(exitStatus(child), 0);
  EXPECT_EQ(ids().size(), static_cast<std::size_t>(processes * accounts));
}

TEST_F(FileStore, SurvivesAWriterKilledAtAnyMoment) {
  save("first", std::string(20'000, 't'));
  for (int round = 0; round < 200; ++round) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = inChild([&] {
      while (true) {
        open()->save({"second", std::string(20'000, 'u'), "", 0}, nullptr);
        if (::write(ready[1], "x", 1) != 1) return 1;
      }
    });
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    // Another moment of the write each round.
    const auto killAt = std::chrono::steady_clock::now() + std::chrono::microseconds(round * 20);
    while (std::chrono::steady_clock::now() < killAt) {
    }
    ::kill(child, SIGKILL);
    exitStatus(child);
    ::close(ready[0]);
    ::close(ready[1]);
    ASSERT_EQ(ids(), (Ids{"first", "second"})) << "round " << round;
  }
  save("third");
  EXPECT_EQ(ids(), (Ids{"first", "second", "third"}));
  const auto left = std::distance(std::filesystem::directory_iterator(folder()), {});
  EXPECT_EQ(left, 2) << "the store and its lock, nothing that a killed writer left";
}

TEST_F(FileStore, RemovesOnlyWhatAWriterOfItsOwnLeft) {
  namespace fs = std::filesystem;
  const std::string elsewhere = scratch.path() + "/elsewhere";
  const auto plant = [](const std::string& in) {
    fs::create_directories(in);
    for (const char* name : {"notes", ".kzv-notes", ".kzv-abcDE1"}) std::ofstream(in + "/" + name) << "";
  };
  save("a");
  plant(folder());
  fs::create_symlink(folder() + "/notes", folder() + "/.kzv-abcDE2");
  save("b");
  EXPECT_TRUE(fs::exists(folder() + "/notes"));
  EXPECT_TRUE(fs::exists(folder() + "/.kzv-notes"));
  EXPECT_TRUE(fs::is_symlink(folder() + "/.kzv-abcDE2"));
  EXPECT_FALSE(fs::exists(folder() + "/.kzv-abcDE1"));
  // The folder may have become a link to one that holds other things.
  fs::remove_all(folder());
  plant(elsewhere);
  fs::create_directory_symlink(elsewhere, folder());
  open()->save({"c", "t", "", 0}, nullptr);
  for (const char* name : {"notes", ".kzv-notes", ".kzv-abcDE1"})
    EXPECT_TRUE(fs::exists(elsewhere + "/" + name)) << name;
}

TEST_F(FileStore, FullDiskLeavesTheOldStore) {
  save("a");
  const pid_t child = inChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{600, 600};
    ::setrlimit(RLIMIT_FSIZE, &small);
    NSErrorRef error;
    const bool stored = open()->save({"b", std::string(5'000, 't'), "", 0}, &error);
    return stored || !error ? 1 : 0;
  });
  EXPECT_EQ(exitStatus(child), 0) << "the write fails with an error";
  EXPECT_EQ(ids(), Ids{"a"});
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder()), {}), 2);
}

}  // namespace

}  // namespace kzv::sdk
