// A whole mounted volume without a kernel: programs and another device over a volume in memory.
#include <cerrno>
#include <filesystem>
#include <future>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "foundation/Paths.h"
#include "mount/MountedVolume.h"
#include "mount/VolumePath.h"
#include "mount/testing/FakeKernel.h"
#include "mount/testing/JournalTest.h"
#include "mount/testing/MemoryVolume.h"

namespace kzv::mount {

namespace {

using namespace std::chrono_literals;
using Call = MemoryVolume::Call;
using When = MemoryVolume::When;
using Items = std::map<std::string, std::string>;
using File = std::unique_ptr<OpenFile>;

constexpr auto bound = 20s;
constexpr auto never = [] { return false; };
constexpr int create = O_CREAT;

bool soon(const std::function<bool()>& isTrue) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!isTrue() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  return isTrue();
}

class MountedVolumeTest : public JournalTest {
 protected:
  MountedVolumeTest() {
    delays.retries = {1ms, 1ms};
    delays.firstUploadRetry = delays.longestUploadRetry = 10min;
    delays.emptyFile = 10min;
    delays.refresh = delays.firstRefreshRetry = 1ms;
    delays.quietFolder = 0ms;
  }
  void mount() {
    mounted = std::make_unique<MountedVolume>(
        volume, journal, kernel, LinkSource{}, [this] { return !volume->isUnlinked; }, delays);
    mounted->start();
  }
  /// Ends the mount as a kill would, and mounts again.
  void remount() {
    mounted.reset();
    reopen();
    mount();
  }

  // What programs do; numbers are errno values.
  Result<NodeId> find(const std::string& path) {
    NodeId node = MountTree::rootId;
    for (const std::string& name : componentsOf(path)) {
      const auto found = mounted->lookups().lookup(node, name, never);
      if (found.error) return {0, found.error};
      node = found.value.attributes.id;
    }
    return {node, 0};
  }
  NodeId folderOf(const std::string& path) { return find(deletingLastPathComponent(path)).value; }
  Result<File> open(const std::string& path, int flags) {
    if (flags & O_CREAT) {
      auto created = mounted->files().create(folderOf(path), lastPathComponent(path), flags, never);
      return {std::move(created.value.opened.file), created.error};
    }
    const auto node = find(path);
    if (node.error) return {nullptr, node.error};
    auto opened = mounted->files().open(node.value, flags, never);
    return {std::move(opened.value.file), opened.error};
  }
  int put(OpenFile& file, const std::string& text) {
    const auto append = [&](int descriptor, std::uint64_t size) {
      return ::pwrite(descriptor, text.data(), text.size(), static_cast<off_t>(size)) < 0 ? errno : 0;
    };
    return mounted->files().write(file, append, never);
  }
  int close(File file) {
    const int reason = mounted->files().flush(*file, never);
    mounted->files().release(std::move(file));
    return reason;
  }
  int save(const std::string& path, const std::string& text, int flags = O_CREAT | O_TRUNC) {
    auto file = open(path, O_WRONLY | flags);
    if (file.error) return file.error;
    const int reason = put(*file.value, text);
    return reason ? reason : close(std::move(file.value));
  }
  std::string readFrom(OpenFile& file) {
    const auto bytes = mounted->files().bytesOf(file, never);
    if (bytes.error) return "error " + std::to_string(bytes.error);
    std::string text(file.content->sizeBytes(), '\0');
    if (bytes.value.descriptor() >= 0) {
      text.resize(static_cast<std::size_t>(
          std::max<ssize_t>(::pread(bytes.value.descriptor(), text.data(), text.size(), 0), 0)));
    } else {
      bytes.value.reader->read(0, std::as_writable_bytes(std::span(text)), {}, nullptr);
    }
    return text;
  }
  std::string read(const std::string& path) {
    auto file = open(path, O_RDONLY);
    if (file.error) return "error " + std::to_string(file.error);
    const std::string text = readFrom(*file.value);
    close(std::move(file.value));
    return text;
  }
  int mkdir(const std::string& path) {
    return mounted->changes().makeFolder(folderOf(path), lastPathComponent(path), never).error;
  }
  int remove(const std::string& path) {
    return mounted->changes().removeFile(folderOf(path), lastPathComponent(path), never);
  }
  int rmdir(const std::string& path) {
    return mounted->changes().removeFolder(folderOf(path), lastPathComponent(path), never);
  }
  int move(const std::string& from, const std::string& to, Rename::Target target = Rename::Target::mayExist) {
    return mounted->rename(
        {folderOf(from), lastPathComponent(from), folderOf(to), lastPathComponent(to), target}, never);
  }
  std::uint64_t size(const std::string& path) {
    return mounted->lookups().attributes(find(path).value).value.sizeBytes;
  }
  std::set<std::string> names(const std::string& folder) {
    std::set<std::string> all;
    const auto listing = mounted->lookups().list(find(folder).value, 1, never);
    if (!listing.error)
      for (const auto& item : *listing.value) all.insert(item.name);
    return all;
  }
  std::size_t waiting() { return UploadJournal::stateOf("u/1").waiting.size(); }

  MountDelays delays;
  FakeKernel kernel;
  const std::shared_ptr<MemoryVolume> volume = std::make_shared<MemoryVolume>();
  std::unique_ptr<MountedVolume> mounted;
};

TEST_F(MountedVolumeTest, ErrorsAreThoseOfAFileSystem) {
  for (const char* path : {"/d/f", "/full/x", "/Case/f", "/old/f"}) volume->write(path, "12345");
  mount();
  constexpr std::uint64_t tooLarge = 10'000'000'000'000;
  const auto truncate = [&](const std::string& path, std::uint64_t bytes) {
    return mounted->files().truncate(find(path).value, nullptr, bytes, never);
  };
  struct Case {
    const char* name;
    int expected;
    std::function<int()> run;
  };
  const Case cases[] = {
      {"open a missing file", ENOENT, [&] { return open("/none", O_RDONLY).error; }},
      {"below a file", ENOTDIR, [&] { return open("/d/f/x", O_RDONLY).error; }},
      {"create an existing file", EEXIST, [&] { return open("/D/F", create | O_EXCL).error; }},
      {"create below a missing folder", ENOENT, [&] { return open("/none/x", create).error; }},
      {"open a folder", EISDIR, [&] { return open("/d", O_WRONLY).error; }},
      {"mkdir", 0, [&] { return mkdir("/made"); }},
      {"mkdir over a folder", EEXIST, [&] { return mkdir("/MADE"); }},
      {"mkdir with a reserved name", EINVAL, [&] { return mkdir("/d.tmp"); }},
      {"rmdir of a full folder", ENOTEMPTY, [&] { return rmdir("/full"); }},
      {"rmdir of a file", ENOTDIR, [&] { return rmdir("/full/x"); }},
      {"rmdir", 0, [&] { return rmdir("/made"); }},
      {"unlink a folder", EISDIR, [&] { return remove("/full"); }},
      {"unlink a missing file", ENOENT, [&] { return remove("/none"); }},
      {"a name that is not UTF-8", EINVAL, [&] { return save("/\xFF", ""); }},
      {"a name that is too long", ENAMETOOLONG, [&] { return move("/d/f", "/" + std::string(256, 'n')); }},
      {"a folder into itself", EINVAL, [&] { return move("/d", "/d/x"); }},
      {"a folder over a file", ENOTDIR, [&] { return move("/d", "/full/x"); }},
      {"a file over a folder", EISDIR, [&] { return move("/full/x", "/d"); }},
      {"a folder over a full one", ENOTEMPTY, [&] { return move("/d", "/full"); }},
      {"over an item, refused", EEXIST,
       [&] { return move("/d/f", "/full/x", Rename::Target::mustNotExist); }},
      {"a folder to a reserved name", EINVAL, [&] { return move("/d", "/d.tmp"); }},
      {"a folder over an empty one", 0, [&] { return mkdir("/empty") + move("/old", "/empty"); }},
      {"another letter case", 0, [&] { return move("/Case", "/CASE"); }},
      {"onto itself", 0,
       [&] {
         const int moves = volume->count(Call::move);
         return move("/d/f", "/d/f") + volume->count(Call::move) - moves;
       }},
      {"over a file", 0, [&] { return save("/d/new", "newer") + move("/d/new", "/full/X"); }},
      {"10 TB", ENOSPC, [&] { return truncate("/d/f", tooLarge); }},
      {"shortened", 0, [&] { return truncate("/d/f", 2); }},
      {"the version of a folder", ENODATA,
       [&] {
         const auto revision = mounted->lookups().revision(find("/d").value);
         return revision.error ? revision.error : revision.value.empty() ? ENODATA : 0;
       }},
      {"a link", ENODATA, [&] { return mounted->lookups().publicLink(find("/d").value).error; }},
      {"a new link", EOPNOTSUPP, [&] { return mounted->lookups().makePublicLink(find("/d").value); }},
      {"a number that nobody has", ENOENT, [&] { return mounted->lookups().attributes(99'999).error; }},
  };
  for (const Case& c : cases) EXPECT_EQ(c.run(), c.expected) << c.name;
  EXPECT_EQ(volume->items(), (Items{{"/d/", ""},
                                    {"/d/f", "12"},
                                    {"/full/", ""},
                                    {"/full/X", "newer"},
                                    {"/CASE/", ""},
                                    {"/CASE/f", "12345"},
                                    {"/empty/", ""},
                                    {"/empty/f", "12345"}}));
  EXPECT_EQ(waiting(), 0U);
  volume->isUnlinked = true;
  EXPECT_EQ(mkdir("/late"), EACCES) << "a failure without a reason after the account was unlinked";
  mounted.reset();
  EXPECT_TRUE(volume->watchedFolders().empty()) << "a folder that was replaced is still watched";
}

TEST_F(MountedVolumeTest, FailuresThatPassAreRetriedAndLostAnswersFound) {
  volume->write("/f", "old");
  volume->write("/g", "old");
  mount();
  struct Case {
    const char* name;
    Call call;
    FSErrorCode code;
    int times;
    When when;
    int expected;
    std::function<int()> run;
  };
  const auto instead = When::instead;
  const auto afterwards = When::afterwards;
  const Case cases[] = {
      {"list", Call::list, FSErrorCode::connection, 2, instead, 0, [&] { return find("/f").error; }},
      {"open", Call::open, FSErrorCode::busy, 2, instead, 0, [&] { return read("/f") == "old" ? 0 : 1; }},
      {"open, too often", Call::open, FSErrorCode::busy, 3, instead, EBUSY,
       [&] { return open("/g", O_RDONLY).error; }},
      {"mkdir, for good", Call::makeFolder, FSErrorCode::denied, 1, instead, EACCES,
       [&] { return mkdir("/d"); }},
      {"mkdir", Call::makeFolder, FSErrorCode::damaged, 1, instead, 0, [&] { return mkdir("/d"); }},
      {"a lost answer to a move", Call::move, FSErrorCode::connection, 1, afterwards, 0,
       [&] { return move("/f", "/d/f"); }},
      {"a move, too often", Call::move, FSErrorCode::connection, 3, instead, EIO,
       [&] { return move("/d/f", "/f"); }},
      {"a lost answer to a removal", Call::remove, FSErrorCode::connection, 1, afterwards, 0,
       [&] { return remove("/d/f"); }},
  };
  for (const Case& c : cases) {
    volume->fail(c.call, c.code, c.times, c.when);
    EXPECT_EQ(c.run(), c.expected) << c.name;
  }
  EXPECT_EQ(volume->items(), (Items{{"/g", "old"}, {"/d/", ""}}));
  volume->fail(Call::makeFolder, FSErrorCode::connection, 1);
  EXPECT_EQ(mounted->changes().makeFolder(MountTree::rootId, "e", [] { return true; }).error, EINTR);
  mounted->stop();
  volume->fail(Call::makeFolder, FSErrorCode::connection, 1);
  EXPECT_EQ(mkdir("/e"), EIO) << "the mount is going away";
}

TEST_F(MountedVolumeTest, AnOpenFileKeepsItsVersion) {
  struct Case {
    const char* name;
    std::function<void()> change;
    std::string shown;
  };
  const Case cases[] = {
      {"removed here", [&] { remove("/f"); }, "error 2"},
      {"removed elsewhere", [&] { volume->erase("/f"); }, "error 2"},
      {"replaced here", [&] { EXPECT_EQ(save("/new", "newer") + move("/new", "/f"), 0); }, "newer"},
      {"replaced elsewhere", [&] { volume->write("/f", "newer"); }, "newer"},
      {"moved elsewhere", [&] { volume->moveElsewhere("/f", "/moved"); }, "error 2"},
  };
  mount();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    volume->write("/f", "first");
    volume->report("/");
    ASSERT_TRUE(soon([&] { return read("/f") == "first"; }));
    auto file = open("/f", O_RDONLY);
    ASSERT_EQ(file.error, 0);
    const NodeId node = file.value->node->id;
    c.change();
    volume->report("/");
    EXPECT_TRUE(soon([&] { return read("/f") == c.shown; })) << read("/f");
    EXPECT_EQ(readFrom(*file.value), "first");
    const auto attributes = mounted->lookups().attributes(node).value;
    EXPECT_EQ(attributes.sizeBytes, 5U);
    EXPECT_FALSE(attributes.isCacheable) << "the kernel would show it after the file is closed, too";
    kernel.takeAll();
    mounted->files().release(std::move(file.value));
    EXPECT_TRUE(kernel.took("content " + std::to_string(node)));
    EXPECT_EQ(mounted->lookups().attributes(node).error, ESTALE) << "the kernel has to look again";
  }
}

TEST_F(MountedVolumeTest, AnotherDevicesVersionIsShownInTheEndHoweverItCame) {
  struct Case {
    const char* name;
    std::function<void()> change;
    std::string path;
  };
  const Case cases[] = {
      {"a rename moved it unseen",
       [&] {
         volume->write("/d/f", "newer");
         EXPECT_EQ(move("/d/f", "/d/g"), 0);
       },
       "/d/g"},
      {"it replaced a file that a failing listing did not show",
       [&] {
         volume->fail(Call::list, FSErrorCode::connection, 3);
         volume->write("/d/f", "newer");
         kernel.takeAll();
         const NodeId node = find("/d/f").value;
         volume->report("/d");
         EXPECT_TRUE(kernel.took("content " + std::to_string(node))) << "nobody asks for the folder";
       },
       "/d/f"},
      {"it came back while the older one was open for writing",
       [&] {
         auto writer = open("/d/f", O_WRONLY);
         volume->erase("/d/f");
         volume->write("/d/listed", "1");
         volume->report("/d");
         EXPECT_TRUE(soon([&] { return names("/d").contains("listed"); }));
         volume->write("/d/f", "newer");
         volume->erase("/d/listed");
         volume->report("/d");
         EXPECT_TRUE(soon([&] { return !names("/d").contains("listed"); }));
         close(std::move(writer.value));
       },
       "/d/f"},
      {"it came while the folder was renamed",
       [&] {
         volume->onNext(Call::move, [&] { volume->write("/e/f", "newer"); });
         EXPECT_EQ(move("/d", "/e"), 0);
       },
       "/e/f"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& [path, bytes] : volume->items()) volume->erase(path);
    volume->write("/d/f", "the first version");
    reopen();
    mount();
    ASSERT_EQ(read("/d/f"), "the first version");
    c.change();
    EXPECT_TRUE(soon([&] { return size(c.path) == 5; })) << size(c.path);
    EXPECT_EQ(read(c.path), "newer");
    mounted.reset();
  }
}

TEST_F(MountedVolumeTest, WritingGoesOnFromTheVersionThatARenameMade) {
  volume->write("/f", "1");
  mount();
  auto file = open("/f", O_WRONLY);
  put(*file.value, "+2");
  EXPECT_EQ(mounted->files().sync(*file.value, never), 0);
  EXPECT_EQ(move("/f", "/g"), 0);
  put(*file.value, "+3");
  EXPECT_EQ(close(std::move(file.value)), 0);
  EXPECT_EQ(volume->items(), (Items{{"/g", "1+2+3"}}));
}

TEST_F(MountedVolumeTest, TheKernelsCachesHoldOneVersionANode) {
  volume->write("/f", "first");
  volume->write("/spelled", "1");
  mount();
  const NodeId node = find("/f").value;
  const auto opened = [&] { return mounted->files().open(node, O_RDONLY, never); };
  auto first = opened();
  EXPECT_FALSE(first.value.keepsCache) << "nothing of it is cached yet";
  mounted->files().release(std::move(first.value.file));
  auto second = opened();
  EXPECT_TRUE(second.value.keepsCache && !second.value.isKernelSizeStale);
  mounted->files().release(std::move(second.value.file));
  volume->write("/f", "other");
  volume->erase("/spelled");
  volume->write("/SPELLED", "1");
  volume->report("/");
  EXPECT_TRUE(kernel.took("content " + std::to_string(node)));
  EXPECT_TRUE(kernel.took("entry 1 spelled"));
  auto third = opened();
  EXPECT_FALSE(third.value.keepsCache);
  EXPECT_TRUE(third.value.isKernelSizeStale);
  EXPECT_EQ(readFrom(*third.value.file), "other");
  mounted->files().noteKernelSizeDropped(*third.value.file);
  mounted->files().release(std::move(third.value.file));
  EXPECT_FALSE(opened().value.isKernelSizeStale);
  EXPECT_TRUE(mounted->lookups().lookup(MountTree::rootId, "F", never).value.isOtherSpelling);
  // Without a connection, what the kernel has cached can be read.
  volume->write("/uncached", "1");
  volume->report("/");
  EXPECT_TRUE(soon([&] { return !find("/uncached").error; }));
  volume->fail(Call::open, FSErrorCode::connection, 999);
  EXPECT_EQ(opened().error, 0);
  EXPECT_EQ(open("/uncached", O_RDONLY).error, EIO);
}

TEST_F(MountedVolumeTest, ChangesOfAnotherDeviceAreNeverOverwritten) {
  struct Case {
    const char* name;
    bool isReported;
    std::function<int()> save;
  };
  const Case cases[] = {
      {"in place", false, [&] { return save("/f", "mine"); }},
      {"appended", false, [&] { return save("/f", "+mine", 0); }},
      {"by rename", false, [&] { return save("/new", "mine") + move("/new", "/f"); }},
      {"open meanwhile", true,
       [&] {
         auto file = open("/f", O_WRONLY | O_TRUNC);
         volume->write("/f", "theirs");
         volume->report("/");
         put(*file.value, "mine");
         return close(std::move(file.value));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    volume->write("/f", "first");
    mount();
    ASSERT_TRUE(soon([&] { return read("/f") == "first"; }));
    if (!c.isReported) volume->write("/f", "theirs");
    EXPECT_EQ(c.save(), 0);
    std::multiset<std::string> kept;
    for (const auto& [path, bytes] : volume->items()) kept.insert(bytes);
    EXPECT_EQ(kept.count("theirs"), 1U);
    EXPECT_EQ(kept.size(), 2U);
    EXPECT_TRUE(soon([&] { return names("/").size() == 2; })) << "both are shown";
    mounted.reset();
    for (const auto& [path, bytes] : volume->items()) volume->erase(path);
    reopen();
  }
}

TEST_F(MountedVolumeTest, WhatIsWrittenToAReplacedFileStaysBesideIt) {
  volume->write("/f", "first");
  mount();
  auto file = open("/f", O_WRONLY);
  put(*file.value, "+mine");
  volume->write("/f", "theirs");
  EXPECT_EQ(mounted->files().sync(*file.value, never), 0);
  EXPECT_TRUE(soon([&] { return read("/f") == "theirs"; }));
  put(*file.value, "+more");
  EXPECT_EQ(close(std::move(file.value)), 0);
  EXPECT_EQ(volume->items(), (Items{{"/f", "theirs"}, {"/f (conflict)", "first+mine+more"}}));
  EXPECT_TRUE(soon([&] { return read("/f (conflict)") == "first+mine+more"; }));
}

TEST_F(MountedVolumeTest, TheLastWriterUploadsAndFailuresWaitInTheJournal) {
  mount();
  auto first = open("/f", O_WRONLY | create);
  auto second = open("/f", O_WRONLY);
  EXPECT_EQ(second.value->content->writers(), 2);
  put(*first.value, "one");
  EXPECT_EQ(close(std::move(first.value)), 0);
  EXPECT_EQ(volume->count(Call::store), 0);
  EXPECT_EQ(waiting(), 1U) << "it survives the end of the process from now on";
  put(*second.value, "+two");
  EXPECT_EQ(close(std::move(second.value)), 0);
  EXPECT_EQ(volume->bytesOf("/f"), "one+two");
  EXPECT_EQ(waiting(), 0U);
  const int opens = volume->count(Call::open);
  EXPECT_EQ(read("/f"), "one+two");
  EXPECT_EQ(volume->count(Call::open), opens) << "what was written here is downloaded again";

  EXPECT_EQ(close(open("/empty", O_WRONLY | create).value), 0);
  EXPECT_EQ(volume->items().count("/empty"), 0U) << "an empty file is sent at once";
  EXPECT_EQ(waiting(), 1U);
  EXPECT_TRUE(mounted->flushJournal(bound));
  EXPECT_EQ(volume->bytesOf("/empty"), "");

  volume->fail(Call::store, FSErrorCode::noSpace, 999);
  EXPECT_EQ(save("/f", "kept"), ENOSPC);
  EXPECT_EQ(UploadJournal::stateOf("u/1").waiting.at(0).upload.reason, "ordered");
  EXPECT_EQ(read("/f"), "kept");
  EXPECT_FALSE(mounted->flushJournal(bound));
  volume->fail(Call::store, FSErrorCode::noSpace, 0);
  EXPECT_EQ(move("/f", "/g"), 0);
  EXPECT_TRUE(mounted->flushJournal(bound));
  EXPECT_EQ(volume->bytesOf("/g"), "kept");
  EXPECT_EQ(waiting(), 0U);

  auto removed = open("/gone", O_WRONLY | create);
  put(*removed.value, "1");
  EXPECT_EQ(remove("/gone"), 0);
  EXPECT_EQ(close(std::move(removed.value)), 0);
  EXPECT_EQ(volume->items().count("/gone"), 0U) << "a removed file came back";
  EXPECT_EQ(waiting(), 0U);
}

TEST_F(MountedVolumeTest, TheNextMountUploadsWhatThisOneCouldNot) {
  volume->write("/d/f", "old");
  volume->write("/gone/x", "1");
  mount();
  volume->fail(Call::store, FSErrorCode::connection, 999);
  EXPECT_EQ(save("/d/f", "kept"), EIO);
  EXPECT_EQ(save("/d/new", "new"), EIO);
  EXPECT_EQ(save("/gone/f", "left"), EIO);
  EXPECT_EQ(rmdir("/gone"), ENOTEMPTY) << "a file in it was never uploaded";
  remount();
  EXPECT_EQ(read("/d/f"), "kept") << "shown before it is uploaded";
  EXPECT_EQ(rmdir("/gone"), ENOTEMPTY);
  EXPECT_EQ(move("/d", "/e"), 0);
  volume->erase("/gone");
  volume->fail(Call::store, FSErrorCode::connection, 0);
  EXPECT_TRUE(soon([&] { return mounted->flushJournal(bound); }));
  EXPECT_EQ(volume->items(),
            (Items{{"/e/", ""}, {"/e/f", "kept"}, {"/e/new", "new"}, {"/gone/", ""}, {"/gone/f", "left"}}));
  EXPECT_EQ(waiting(), 0U);
  EXPECT_EQ(read("/e/new"), "new");
}

TEST_F(MountedVolumeTest, FilesThatStayHereOutliveTheMountAndItsFolders) {
  volume->write("/d/sub/f", "1");
  volume->write("/gone/deep/f", "1");
  volume->write("/left/f", "1");
  mount();
  const Items before = volume->items();
  for (const char* path : {"/a.tmp", "/d/sub/b.tmp", "/gone/deep/c.tmp", "/left/d.tmp"})
    EXPECT_EQ(save(path, path), 0);
  EXPECT_EQ(volume->items(), before);
  EXPECT_EQ(rmdir("/d/sub"), ENOTEMPTY);
  volume->erase("/gone");
  remount();
  EXPECT_EQ(move("/d", "/e"), 0) << "before anybody has looked into it";
  EXPECT_EQ(read("/a.tmp"), "/a.tmp");
  EXPECT_EQ(read("/e/sub/b.tmp"), "/d/sub/b.tmp");
  EXPECT_EQ(read("/gone/deep/c.tmp"), "/gone/deep/c.tmp");
  EXPECT_EQ(read("/left/d.tmp"), "/left/d.tmp") << "forgotten when another folder was listed";
  EXPECT_EQ(move("/gone", "/GONE"), 0);
  remount();
  EXPECT_EQ(names("/"), (std::set<std::string>{"a.tmp", "e", "left", "GONE"}));
  EXPECT_EQ(save("/a.tmp", "cut"), 0);
  EXPECT_EQ(read("/a.tmp"), "cut");
  volume->write("/a.tmp", "of another client");
  volume->report("/");
  EXPECT_EQ(remove("/a.tmp"), 0);
  EXPECT_TRUE(soon([&] { return read("/a.tmp") == "of another client"; })) << "the file that it hid";
  EXPECT_EQ(remove("/GONE/deep/c.tmp") + rmdir("/GONE/deep") + rmdir("/GONE"), 0);
  remount();
  EXPECT_EQ(names("/"), (std::set<std::string>{"a.tmp", "e", "left"}));
}

TEST_F(MountedVolumeTest, RenamesToReservedNamesAndBack) {
  volume->write("/w", "old");
  mount();
  EXPECT_EQ(save("/1.tmp", "new edition"), 0);
  EXPECT_EQ(move("/w", "/2.tmp"), 0);
  EXPECT_EQ(volume->items(), Items{});
  EXPECT_EQ(move("/1.tmp", "/w"), 0);
  EXPECT_EQ(volume->items(), (Items{{"/w", "new edition"}}));
  EXPECT_EQ(move("/2.tmp", "/3.tmp"), 0);
  EXPECT_EQ(read("/3.tmp"), "old");
  EXPECT_EQ(move("/3.tmp", "/back"), 0);
  EXPECT_EQ(volume->bytesOf("/back"), "old");
  volume->fail(Call::remove, FSErrorCode::denied, 1);
  EXPECT_EQ(move("/back", "/4.tmp"), EACCES);
  EXPECT_EQ(read("/back"), "old");
  EXPECT_EQ(find("/4.tmp").error, ENOENT);
  EXPECT_TRUE(mounted->flushJournal(bound));
  EXPECT_EQ(volume->bytesOf("/back"), "old");
  volume->write("/w", "changed elsewhere");
  EXPECT_EQ(move("/w", "/5.tmp"), 0);
  EXPECT_EQ(volume->bytesOf("/w"), "changed elsewhere") << "a version that was not shown is removed";
  EXPECT_EQ(read("/5.tmp"), "new edition");
  EXPECT_TRUE(soon([&] { return read("/w") == "changed elsewhere"; }));
}

TEST_F(MountedVolumeTest, ARenameThatFailsOrDiesLosesNeitherFile) {
  struct Case {
    const char* name;
    Items before;
    Items after;
    bool isFinished;
  };
  const Case recoveries[] = {
      {"died before the move",
       {{"/from", "new"}, {"/aside", "old"}},
       {{"/from", "new"}, {"/to", "old"}},
       true},
      {"died after the move", {{"/to", "new"}, {"/aside", "old"}}, {{"/to", "new"}}, true},
      {"nothing was moved", {{"/from", "new"}, {"/to", "old"}}, {{"/from", "new"}, {"/to", "old"}}, true},
      {"another device has put something there",
       {{"/from", "new"}, {"/to", "theirs"}, {"/aside", "old"}},
       {{"/from", "new"}, {"/to", "theirs"}, {"/aside", "old"}},
       true},
      {"not known now", {{"/from", "new"}, {"/aside", "old"}}, {{"/from", "new"}, {"/aside", "old"}}, false},
  };
  for (const Case& c : recoveries) {
    for (const auto& [path, bytes] : volume->items()) volume->erase(path);
    for (const auto& [path, bytes] : c.before) volume->write(path, bytes);
    journal->put(UploadJournal::Rename{"1", "/from", "/to", "/aside"});
    if (!c.isFinished) volume->fail(Call::attributes, FSErrorCode::connection, 1);
    remount();
    EXPECT_EQ(volume->items(), c.after) << c.name;
    EXPECT_EQ(journal->renames().empty(), c.isFinished) << c.name;
    mounted.reset();
  }
  journal->forgetRename("1");
  for (const auto& [path, bytes] : volume->items()) volume->erase(path);
  volume->write("/from", "new");
  volume->write("/to", "old");
  mount();
  EXPECT_EQ(read("/to"), "old");
  // The second move fails: the first one is taken back.
  volume->onNext(Call::move, [&] {
    EXPECT_EQ(journal->renames().size(), 1U) << "the journal does not know of it";
    volume->fail(Call::move, FSErrorCode::denied, 1);
  });
  EXPECT_EQ(move("/from", "/to"), EACCES);
  EXPECT_EQ(volume->items(), (Items{{"/from", "new"}, {"/to", "old"}}));
  EXPECT_TRUE(journal->renames().empty());
  volume->report("/");  // the move back has made a new version
  EXPECT_TRUE(soon(
      [&] { return mounted->lookups().revision(find("/to").value).value == volume->revisionAtPath("/to"); }));
  auto reader = open("/to", O_RDONLY);
  EXPECT_EQ(move("/from", "/to"), 0);
  EXPECT_EQ(volume->items(), (Items{{"/to", "new"}}));
  EXPECT_EQ(readFrom(*reader.value), "old");
  mounted->files().release(std::move(reader.value));
  EXPECT_EQ(read("/to"), "new");
}

TEST_F(MountedVolumeTest, AListingInFlightDoesNotUndoAChange) {
  volume->write("/d/f", "1");
  mount();
  volume->onNext(Call::list, [&] { volume->onNext(Call::list, [&] { mkdir("/d/made"); }); });
  EXPECT_EQ(find("/d/made").error, 0) << "made after the listing was put together";
  EXPECT_EQ(names("/d"), (std::set<std::string>{"f", "made"}));
  EXPECT_TRUE(volume->report("/d/made")) << "new folders are watched";
  EXPECT_EQ(move("/d", "/e"), 0);
  EXPECT_FALSE(volume->report("/d"));
  EXPECT_TRUE(volume->report("/e") && volume->report("/e/made")) << "watched under the old path";
  volume->onNext(Call::list, [&] { remove("/e/f"); });
  volume->report("/e");
  EXPECT_TRUE(soon([&] { return names("/e") == std::set<std::string>{"made"}; }));
  EXPECT_EQ(rmdir("/e/made") + rmdir("/e"), 0);
  EXPECT_TRUE(soon([&] { return volume->watchedFolders().size() == 1; })) << "the root is watched";
  mounted.reset();
  EXPECT_TRUE(volume->watchedFolders().empty());
}

TEST_F(MountedVolumeTest, UnsentFilesOutliveTheirFolderAndTheirName) {
  volume->write("/d/f", "1");
  volume->write("/d/sub/x", "1");
  mount();
  auto file = open("/d/f", O_WRONLY);
  put(*file.value, "+mine");
  find("/d/sub/x");
  volume->erase("/d/f");
  volume->erase("/d/sub");
  volume->write("/d/sub", "a file now");
  volume->report("/d");
  EXPECT_TRUE(soon([&] { return read("/d/sub") == "a file now"; }));
  EXPECT_EQ(read("/d/f"), "1+mine");
  EXPECT_EQ(close(std::move(file.value)), 0);
  EXPECT_EQ(volume->bytesOf("/d/f"), "1+mine");
  EXPECT_EQ(size("/d/f"), 6U);
}

}  // namespace

}  // namespace kzv::mount
