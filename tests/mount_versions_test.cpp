// Which version of a file a mount shows, and what becomes of it: several programs and a second device at
// once.
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <sys/xattr.h>

#include "tests/MountFixture.h"

namespace {

class MountVersionsTest : public MountTest {
 protected:
  /// The paths of `path` and of the copies beside it that the service made of other versions.
  std::vector<std::string> copiesOf(const std::string& path) {
    std::vector<std::string> copies;
    for (const auto& [each, size] : standIn.tree())
      if (each == path || each.starts_with(path + " (")) copies.push_back(each);
    return copies;
  }
};

/// Reads on from `offset` in small steps, past the kernel's page cache.
std::string readOn(const File& file, std::size_t offset) {
  must(-::posix_fadvise(file.number, 0, 0, POSIX_FADV_DONTNEED));
  std::string bytes;
  std::array<char, 10'000> step{};
  while (const auto count =
             must(::pread(file.number, step.data(), step.size(), static_cast<off_t>(offset + bytes.size()))))
    bytes.append(step.data(), static_cast<std::size_t>(count));
  return bytes;
}

}  // namespace

TEST_F(MountVersionsTest, AnAppendGoesToTheRealEndWhateverTheKernelBelieves) {
  standIn.write("/f", "0123456789");
  mount();
  const File appender(root / "f", O_RDWR | O_APPEND);
  const File reader(root / "f", O_RDONLY);
  EXPECT_EQ(readOn(reader, 0), "0123456789");
  File other(root / "F", O_WRONLY | O_APPEND);  // another spelling: another inode for the kernel
  other.put("abc");
  appender.put("def");
  other.put("ghi");
  EXPECT_EQ(contentOf(root / "f"), "0123456789abcdefghi");
  std::array<char, 30> bytes{};
  EXPECT_EQ(must(::pread(reader.number, bytes.data(), bytes.size(), 0)), 19);
  EXPECT_EQ(std::string(bytes.data(), 19), "0123456789abcdefghi");
  const File late(root / "f", O_WRONLY);
  must(::fcntl(late.number, F_SETFL, O_APPEND));
  late.put("jkl");
  EXPECT_TRUE(soon([&] { return contentOf(root / "f") == "0123456789abcdefghijkl"; }));
}

TEST_F(MountVersionsTest, AnotherVersionOfTheSameSecondAndSizeIsSeen) {
  for (const char* path : {"/a", "/b", "/c"}) standIn.write(path, "first");
  mount();
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(contentOf(root / name), "first");
  for (const char* path : {"/a", "/b", "/c"}) standIn.write(path, "other");
  for (const char* name : {"a", "b", "c"})
    EXPECT_TRUE(soon([&] { return contentOf(root / name) == "other"; })) << name;
}

TEST_F(MountVersionsTest, AnOpenFileKeepsItsVersionToTheLastByte) {
  const std::string before(3'000'000, 'A');
  const std::string after(3'000'000, 'B');
  struct Case {
    const char* name;
    std::function<void(const fs::path& path)> change;
    bool isGone;
  };
  int moves = 0;
  const auto remote = [](const fs::path& path) { return "/" + path.filename().string(); };
  const Case cases[] = {
      {"removed here", [](const fs::path& path) { unlink(path); }, true},
      {"removed elsewhere", [&](const fs::path& path) { standIn.remove(remote(path)); }, true},
      {"replaced here",
       [&](const fs::path& path) {
         store(root / "new", after);
         moveFile(root / "new", path);
       },
       false},
      {"replaced elsewhere", [&](const fs::path& path) { standIn.write(remote(path), after); }, false},
      {"moved away elsewhere",
       [&](const fs::path& path) {
         standIn.move(remote(path), remote(path) + " " + std::to_string(++moves));
       },
       true},
  };
  for (const bool isWrittenHere : {false, true}) {
    for (const Case& c : cases)
      if (!isWrittenHere) standIn.write("/" + std::string(c.name), before);
    if (!process_) mount();
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (isWrittenHere ? ", written here" : ""));
      const fs::path path = root / c.name;
      if (isWrittenHere) store(path, before);
      const File file(path, O_RDONLY);
      const File unread(path, O_RDONLY);
      std::string bytes(100'000, '\0');
      ASSERT_EQ(must(::read(file.number, bytes.data(), bytes.size())), 100'000);
      c.change(path);
      EXPECT_TRUE(soon([&] {
        return c.isGone ? errnoOf([&] { File(path, O_RDONLY); }) == ENOENT : contentOf(path) == after;
      }));
      EXPECT_TRUE(readOn(file, bytes.size()) == before.substr(bytes.size()));
      EXPECT_TRUE(readOn(unread, 0) == before);
      EXPECT_TRUE(c.isGone || contentOf(path) == after) << "the open file's version is shown to others";
    }
  }
}

TEST_F(MountVersionsTest, WhatIsWrittenToAReplacedFileIsKeptBesideIt) {
  standIn.write("/f", "first");
  mount();
  File writer(root / "f", O_WRONLY | O_APPEND);
  const File reader(root / "f", O_RDONLY);
  standIn.write("/f", "other");
  EXPECT_TRUE(soon([&] { return standIn.requests()["files/list_folder/continue"] >= 1; })) << "no poll";
  writer.put(" and mine");
  writer.close();
  EXPECT_EQ(readOn(reader, 0), "first and mine");
  EXPECT_EQ(standIn.content("/f"), "other");
  EXPECT_TRUE(soon([&] { return contentOf(root / "f") == "other"; }));
  const auto copies = copiesOf("/f");
  ASSERT_EQ(copies.size(), 2U);
  EXPECT_EQ(standIn.content(copies.back()), "first and mine");
}

TEST_F(MountVersionsTest, AFileThatWasReplacedBeforeItCouldBeOpenedIsShownAnew) {
  standIn.write("/f", "first");
  mount();
  const fs::path path = root / "f";
  EXPECT_EQ(fs::file_size(path), 5U);
  standIn.fault({{"route", "files/download"}, {"times", 0}, {"delay_ms", 60'000}});
  ChildProcess opener({"/bin/cat", path.string()}, {});
  EXPECT_TRUE(soon([&] { return standIn.requests()["files/download"] >= 1; }));
  standIn.write("/f", "another");
  EXPECT_TRUE(soon([&] { return ::getxattr(path.c_str(), "user.kzv.rev", nullptr, 0) < 0; }));
  EXPECT_EQ(fs::file_size(path), 5U) << "a program is opening the older version";
  opener.signal(SIGKILL);
  opener.finish(20s);
  EXPECT_TRUE(soon([&] { return fs::file_size(path) == 7; })) << "the kernel keeps the older one";
}

TEST_F(MountVersionsTest, ARevokedTokenIsNoMissingFile) {
  standIn.write("/d/sub/f", "12345");
  mount();
  EXPECT_TRUE(fs::exists(root / "d"));
  File open(root / "new", O_WRONLY | O_CREAT);
  open.put("kept");
  standIn.settings({{"revoke", "ada-token"}});
  EXPECT_EQ(errnoOf([&] { open.close(); }), EACCES);
  for (const char* path : {"d/sub", "d/sub/f", "d/none"})  // the first asks, the others find it unlinked
    EXPECT_EQ(errnoOf([&] { File(root / path, O_RDONLY); }), EACCES) << path;
  EXPECT_EQ(waiting(), 1U);
}
