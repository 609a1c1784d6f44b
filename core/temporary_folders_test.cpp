#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/KZVSupport.h"
#include "core/TemporaryFolders.h"

namespace {

namespace fs = std::filesystem;

class TemporaryFoldersTest : public testing::Test {
 protected:
  TemporaryFoldersTest()
      : base_(fs::temp_directory_path() / ("kzv-tmp-" + KZVSupport::uniquePathComponent())) {}
  ~TemporaryFoldersTest() override { fs::remove_all(base_); }

  std::string root() const { return (base_ / "cache" / "tmp").string(); }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(root())) found.insert(entry.path().filename());
    return found;
  }
  static unsigned modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
  }

  const fs::path base_;
};

/// Another process that owns a folder with a file in it. It ends only when it is killed.
class OtherProcess {
 public:
  explicit OtherProcess(const std::string& root) {
    int ready[2];
    if (::pipe(ready) != 0) ADD_FAILURE() << "no pipe";
    process_ = ::fork();
    if (process_ == 0) {
      TemporaryFolders folders(root);
      const auto folder = folders.makeFolder(nullptr);
      if (folder) std::ofstream(folder->path() + "/file") << "content";
      const std::string path = folder ? folder->path() : "";
      if (::write(ready[1], path.data(), path.size()) < 0) ::_exit(1);
      ::close(ready[1]);
      while (true) ::pause();
    }
    ::close(ready[1]);
    char buffer[4096];
    for (ssize_t count = 0; (count = ::read(ready[0], buffer, sizeof buffer)) > 0;)
      folder_.append(buffer, static_cast<std::size_t>(count));
    ::close(ready[0]);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;
  ~OtherProcess() { kill(); }

  void kill() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    process_ = -1;
  }
  const std::string& folder() const { return folder_; }

 private:
  pid_t process_ = -1;
  std::string folder_;
};

TEST_F(TemporaryFoldersTest, FoldersArePrivateEmptyAndEachAnother) {
  fs::create_directories(root());
  fs::permissions(root(), fs::perms::all);
  TemporaryFolders folders(root());
  const auto first = folders.makeFolder(nullptr);
  const auto second = folders.makeFolder(nullptr);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->path(), second->path());
  EXPECT_TRUE(fs::is_empty(first->path()));
  EXPECT_EQ(modeOf(first->path()), 0700U);
  EXPECT_EQ(modeOf(root()), 0700U) << "one that others could read is closed first";
  folders.removeOwn();
  EXPECT_EQ(names(), std::set<std::string>{});
}

TEST_F(TemporaryFoldersTest, WhatACleanerTookIsMadeAnew) {
  TemporaryFolders folders(root());
  for (const std::string& taken : {root(), base_.string()}) {
    ASSERT_TRUE(folders.makeFolder(nullptr));
    fs::remove_all(taken);
    NSErrorRef error;
    const auto folder = folders.makeFolder(&error);
    ASSERT_TRUE(folder) << error->localizedDescription();
    EXPECT_TRUE(fs::is_directory(folder->path()));
  }
  EXPECT_EQ(modeOf(base_.string()), 0700U) << "parents are private whatever the umask";
  const auto folder = folders.makeFolder(nullptr);
  fs::remove_all(fs::path(folder->path()).parent_path());
  EXPECT_TRUE(folders.makeFolder(nullptr));
}

TEST_F(TemporaryFoldersTest, AFileInTheWayIsAnErrorThatNamesIt) {
  fs::create_directories(base_ / "cache");
  std::ofstream(root()) << "not a folder";
  TemporaryFolders folders(root());
  NSErrorRef error;
  EXPECT_FALSE(folders.makeFolder(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOTDIR);
}

TEST_F(TemporaryFoldersTest, OnlyFoldersOfProcessesThatEndedAreRemoved) {
  OtherProcess killed(root());
  OtherProcess alive(root());
  ASSERT_FALSE(killed.folder().empty());
  ASSERT_FALSE(alive.folder().empty());
  TemporaryFolders folders(root());
  const auto own = folders.makeFolder(nullptr);
  ASSERT_TRUE(own);

  folders.removeAbandoned();
  EXPECT_TRUE(fs::exists(killed.folder() + "/file")) << "removed although its process lives";

  killed.kill();
  folders.removeAbandoned();
  EXPECT_FALSE(fs::exists(killed.folder()));
  EXPECT_TRUE(fs::exists(alive.folder() + "/file"));
  EXPECT_TRUE(fs::exists(own->path()));
  EXPECT_EQ(names().size(), 4U) << "two folders and their two lock files";
}

TEST_F(TemporaryFoldersTest, WhatIsNoProcessFolderIsLeftAlone) {
  TemporaryFolders folders(root());
  ASSERT_TRUE(folders.makeFolder(nullptr));
  EXPECT_EQ(modeOf(root()), 0700U);
  const fs::path top(root());
  fs::create_directories(top / "somebody else's");
  fs::create_symlink(base_, top / "link.lock");
  std::ofstream(top / "apt.lock") << "";
  std::ofstream(top / "apt") << "";
  const auto before = names();
  folders.removeAbandoned();
  EXPECT_EQ(names(), before);
}

TEST_F(TemporaryFoldersTest, ARootThatSomebodyElsePlantedIsNotUsed) {
  // What an abandoned folder of ours looks like, in a folder of other things.
  const fs::path elsewhere = base_ / "elsewhere";
  const std::string name = "1-" + KZVSupport::uniquePathComponent();
  fs::create_directories(elsewhere / name);
  std::ofstream(elsewhere / (name + ".lock")) << "";
  fs::create_directories(base_ / "cache");
  struct Case {
    const char* name;
    std::function<void()> plant;
    int reason;
  };
  const Case cases[] = {{"a link", [&] { fs::create_symlink(elsewhere, root()); }, ENOTDIR},
                        {"another user's folder",
                         [&] {
                           fs::copy(elsewhere, root(), fs::copy_options::recursive);
                           ASSERT_EQ(::chown(root().c_str(), 12345, 12345), 0);
                         },
                         EPERM}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.reason == EPERM && ::geteuid() != 0) continue;  // only root can plant that
    fs::remove_all(root());
    c.plant();
    TemporaryFolders folders(root());
    folders.removeAbandoned();
    EXPECT_EQ(names(), (std::set<std::string>{name, name + ".lock"}));
    NSErrorRef error;
    EXPECT_FALSE(folders.makeFolder(&error));
    EXPECT_EQ(error ? error->code() : 0, c.reason);
  }
}

}  // namespace
