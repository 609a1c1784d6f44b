// The parts of a mount that know nothing of each other: names, paths, path locks, the tree, the journal and
// the bytes of one file.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "mount/FileContent.h"
#include "mount/MountErrors.h"
#include "mount/MountNames.h"
#include "mount/MountTree.h"
#include "mount/PathLocks.h"
#include "mount/TreeWalks.h"
#include "mount/VolumePath.h"
#include "mount/testing/JournalTest.h"
#include "mount/testing/MemoryVolume.h"

namespace kzv::mount {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Kind = PathLocks::Kind;
using Access = FileContent::Access;
using Durability = UploadJournal::Durability;

TEST(MountNames, SortsNamesAndMakesNewOnes) {
  struct Case {
    std::string name;
    NameKind kind;
    int error;
  };
  const Case cases[] = {{"a.txt", NameKind::remote, 0},
                        {"x.tmp", NameKind::localOnly, 0},
                        {".a.txt.swp", NameKind::localOnly, 0},
                        {".a.kate-swp", NameKind::localOnly, 0},
                        {".goutputstream-1", NameKind::localOnly, 0},
                        {".swp", NameKind::remote, 0},
                        {"a.swp", NameKind::remote, 0},
                        {".a.swf", NameKind::remote, 0},
                        {"\xFF", NameKind::notAllowed, EINVAL},
                        {std::string(256, 'n'), NameKind::tooLong, ENAMETOOLONG}};
  MemoryVolume volume;
  for (const Case& c : cases) {
    EXPECT_EQ(kindOfName(volume, c.name), c.kind) << c.name;
    EXPECT_EQ(errnoOf(c.kind), c.error) << c.name;
  }
  const std::string longName = "x" + std::string(248, 'n') + "\xC3\xA9.txt";
  EXPECT_EQ(asideName(volume, "a.txt", "1"), "a.txt.replaced-1");
  EXPECT_EQ(asideName(volume, longName, "1"), longName.substr(0, 244) + ".replaced-1");
  EXPECT_EQ(asideName(volume, "x" + std::string(242, 'n') + "\xC3\xA9", "1"),
            "x" + std::string(242, 'n') + ".replaced-1")
      << "half a character";
  EXPECT_EQ(conflictName(volume, "a.b.txt", "1"), "a.b (conflicted copy 1).txt");
  EXPECT_EQ(conflictName(volume, ".profile", "1"), ".profile (conflicted copy 1)");
  EXPECT_EQ(conflictName(volume, longName, "1"), asideName(volume, longName, "1"));
}

TEST(MountErrors, OfTheDiskAndOfTheVolume) {
  struct Case {
    NSErrorRef error;
    int number;
    bool isTransient;
  };
  const Case cases[] = {{nullptr, ENOENT, false},
                        {NSError::posix(ENOSPC, ""), ENOSPC, false},
                        {std::make_shared<NSError>("other", 1), EIO, false},
                        {fsError(FSErrorCode::busy, ""), EBUSY, true},
                        {fsError(FSErrorCode::connection, ""), EIO, true},
                        {fsError(FSErrorCode::damaged, ""), EIO, true},
                        {fsError(FSErrorCode::conflict, ""), EEXIST, false},
                        {fsError(FSErrorCode::denied, ""), EACCES, false},
                        {fsError(FSErrorCode::noSpace, ""), ENOSPC, false}};
  for (const Case& c : cases) {
    EXPECT_EQ(errnoOf(c.error), c.number);
    EXPECT_EQ(isTransient(c.error), c.isTransient) << c.number;
  }
}

TEST(PathLocks, KeepApartWhatAChangeOfASubtreeWouldDisturb) {
  struct Case {
    PathLocks::Claim held;
    PathLocks::Claim wanted;
    bool isFree;
  };
  const Case cases[] = {{{"/a", Kind::item}, {"/a", Kind::item}, true},
                        {{"/a", Kind::subtree}, {"/a", Kind::item}, false},
                        {{"/a", Kind::subtree}, {"/a/b", Kind::item}, false},
                        {{"/a", Kind::subtree}, {"/ab", Kind::item}, true},
                        {{"/a/b", Kind::item}, {"/a", Kind::subtree}, false},
                        {{"/a", Kind::item}, {"/a/b", Kind::subtree}, true},
                        {{"/a", Kind::subtree}, {"/a", Kind::subtree}, false},
                        {{"/", Kind::subtree}, {"/x", Kind::subtree}, false},
                        {{"/a", Kind::subtree}, {"/b", Kind::subtree}, true}};
  for (const Case& c : cases) {
    PathLocks locks;
    const auto held = locks.hold({c.held});
    const auto got = locks.hold({{"/else", Kind::subtree}, c.wanted}, [] { return true; });
    EXPECT_EQ(got.has_value(), c.isFree) << c.held.key << " " << c.wanted.key;
  }
}

TEST(PathLocks, AReleaseWakesWhoeverWaits) {
  PathLocks locks;
  auto held = locks.hold({{"/a", Kind::subtree}});
  auto waiting = std::async(std::launch::async, [&] { locks.hold({{"/a", Kind::item}}); });
  PathLocks::Hold moved;
  moved = std::move(held);
  EXPECT_FALSE(locks.hold({{"/a", Kind::item}}, [] { return true; })) << "still held after a move";
  moved = {};
  EXPECT_EQ(waiting.wait_for(20s), std::future_status::ready);
}

TEST(VolumePath, ComponentsAndSubtrees) {
  EXPECT_EQ(componentsOf("/"), std::vector<std::string>());
  EXPECT_EQ(componentsOf("/a/b c"), (std::vector<std::string>{"a", "b c"}));
  EXPECT_TRUE(isAtOrBelow("/a/b", "/a") && isAtOrBelow("/a", "/a") && isAtOrBelow("/a", "/"));
  EXPECT_FALSE(isAtOrBelow("/ab", "/a") || isAtOrBelow("/", "/a"));
}

TEST(MountTree, NodesByNameAndNumber) {
  MountTree tree([](std::string_view name) { return caselessKey(name); });
  const TreeLock lock(tree);
  const auto add = [&](MountNode& folder, const char* name, bool isFolder) KZV_REQUIRES(treeState) {
    auto node = tree.make(isFolder);
    tree.add(folder, node, name);
    return node;
  };
  const auto folder = add(*tree.root(), "Folder", true);
  const auto below = add(*folder, "Below", true);
  const auto file = add(*below, "File", false);
  EXPECT_EQ(tree.atPath("/folder/BELOW/file"), file);
  EXPECT_EQ(tree.atPath("/folder/none/file"), nullptr);
  EXPECT_EQ(MountTree::pathOf(*file), "/Folder/Below/File");
  EXPECT_EQ(tree.keyPathOf(*file), "/folder/below/file");
  EXPECT_EQ(MountTree::pathOf(*tree.root()), "/");

  EXPECT_EQ(tree.find(file->id), nullptr) << "the kernel has not been told of it";
  tree.addLookup(file);
  tree.addLookup(file);
  tree.forget(file->id, 1);
  EXPECT_EQ(tree.find(file->id), file);
  tree.forget(file->id, 1);
  EXPECT_EQ(tree.find(file->id), nullptr);
  tree.forget(MountTree::rootId, 99);
  EXPECT_EQ(tree.find(MountTree::rootId), tree.root());

  const auto changesBefore = folder->inside().changes;
  tree.move(below, *tree.root(), "Moved");
  EXPECT_GT(folder->inside().changes, changesBefore) << "a listing in flight is not applied after a move";
  EXPECT_EQ(tree.atPath("/moved/file"), file);
  EXPECT_EQ(tree.child(*folder, "below"), nullptr);
  tree.remove(below);
  EXPECT_FALSE(tree.contains(*below) || tree.contains(*file));
  EXPECT_TRUE(tree.contains(*folder));
}

class UploadJournalTest : public JournalTest {};

TEST_F(UploadJournalTest, GivesBackWhatWasPutAndRemovesHalves) {
  const auto since = NSDate::Time(1'700'000'000s);
  const UploadJournal::Upload uploads[] = {
      {journal->newId(), "/a", {WriteBase::Kind::revision, "v1"}, since, "it failed"},
      {journal->newId(), "/d/b", {WriteBase::Kind::nothing, ""}, since, ""},
      {journal->newId(), "/c", {}, since, ""}};
  for (const auto& upload : uploads) {
    writeFile(journal->dataPath(upload.id), "12345");
    EXPECT_EQ(journal->put(upload, Durability::power), nullptr);
  }
  const UploadJournal::Local local{journal->newId(), "/x.tmp"};
  writeFile(journal->localPath(local.id), "1");
  journal->put(local, Durability::process);
  journal->put(UploadJournal::Rename{"1", "/from", "/to", "/aside"});
  const fs::path pending = fs::path(journal->dataPath("x")).parent_path();
  writeFile(pending / "stray.data", "1");
  writeFile(pending / "half.json.new", "{");
  writeFile(pending / "empty.json", R"({"path":"/e","base":"latest"})");
  writeFile(pending / "damaged.json", R"({"path":"/../e","base":"latest"})");
  writeFile(pending / "damaged.data", "kept");

  const auto state = UploadJournal::stateOf("u/1");
  EXPECT_TRUE(state.isMounted);
  EXPECT_EQ(state.mountpoint, "/mnt");
  ASSERT_EQ(state.waiting.size(), 4U);
  EXPECT_EQ(state.waiting[0].sizeBytes, 5U);
  EXPECT_EQ(state.waiting[0].upload.reason, "it failed");
  EXPECT_EQ(
      std::count_if(state.waiting.begin(), state.waiting.end(), [](auto& each) { return each.isDamaged; }),
      1);
  NSErrorRef error;
  EXPECT_EQ(UploadJournal::open("u/1", "/other", &error), nullptr);
  EXPECT_EQ(error->code(), EBUSY);
  EXPECT_NE(error->localizedDescription().find("/mnt"), std::string::npos);

  reopen();
  const auto found = journal->uploads();
  ASSERT_EQ(found.size(), 3U);
  for (std::size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i].path, uploads[i].path);
    EXPECT_EQ(found[i].base.kind, uploads[i].base.kind);
    EXPECT_EQ(found[i].base.revision, uploads[i].base.revision);
    EXPECT_EQ(found[i].since, since);
  }
  ASSERT_EQ(journal->locals().size(), 1U);
  EXPECT_EQ(journal->locals()[0].path, "/x.tmp");
  ASSERT_EQ(journal->renames().size(), 1U);
  EXPECT_EQ(journal->renames()[0].aside, "/aside");
  EXPECT_FALSE(fs::exists(pending / "stray.data") || fs::exists(pending / "half.json.new") ||
               fs::exists(pending / "empty.json"));
  EXPECT_TRUE(fs::exists(pending / "damaged.json") && fs::exists(pending / "damaged.data"));
  journal->forgetUpload(found[0].id);
  journal->forgetLocal(local.id);
  journal->forgetRename("1");
  EXPECT_EQ(journal->uploads().size(), 2U);
  EXPECT_TRUE(journal->locals().empty() && journal->renames().empty());
  ASSERT_EQ(UploadJournal::states().size(), 1U);
  EXPECT_EQ(UploadJournal::states()[0].accountId, "u/1");
}

class FileContentTest : public JournalTest {
 protected:
  static int put(FileContent& content, const std::string& text) {
    return content.write([&](int file, std::uint64_t size) {
      return ::pwrite(file, text.data(), text.size(), static_cast<off_t>(size)) < 0 ? errno : 0;
    });
  }
  static std::string read(const FileContent& content) {
    std::string text(content.sizeBytes(), '\0');
    const auto bytes = content.bytes();
    if (bytes.file) {
      EXPECT_EQ(::pread(bytes.file->number(), text.data(), text.size(), 0), ssize_t(text.size()));
    }
    return bytes.file ? text : "(none)";
  }
  std::shared_ptr<FSReader> reader(const std::string& bytes) {
    volume->write("/f", bytes);
    return volume->openReader("/f", "", {}, nullptr);
  }
  std::vector<std::string> waiting() {
    std::vector<std::string> texts;
    for (const auto& each : UploadJournal::stateOf("u/1").waiting) texts.push_back(textOf(each.dataPath));
    return texts;
  }

  const std::shared_ptr<MemoryVolume> volume = std::make_shared<MemoryVolume>();
};

TEST_F(FileContentTest, WritesGoToAPrivateCopyAndNeverToWhatWaits) {
  FileContent content(journal);
  content.useReader(reader("read"));
  content.useReader(reader("a second reader"));
  EXPECT_EQ(content.sizeBytes(), 4U);
  EXPECT_EQ(content.base().revision, "v1");
  EXPECT_FALSE(content.isUnsent() || content.isPrivate());
  EXPECT_EQ(put(content, " and written"), 0);
  EXPECT_EQ(read(content), "read and written");
  EXPECT_TRUE(content.isUnsent() && content.isWritten() && content.isPrivate());

  EXPECT_EQ(content.record("/f", Durability::process), nullptr);
  EXPECT_EQ(put(content, "+"), 0);
  EXPECT_EQ(waiting(), std::vector<std::string>{"read and written"}) << "the recorded version was written to";
  content.record("/f", Durability::power, "failed");
  EXPECT_EQ(waiting(), std::vector<std::string>{"read and written+"});
  EXPECT_EQ(content.makeEmpty({WriteBase::Kind::revision, "v9"}), 0);
  EXPECT_EQ(content.base().revision, "v1") << "it still replaces what it was made from";
  EXPECT_TRUE(content.isUnsent() && !content.isWritten());
  EXPECT_EQ(waiting(), std::vector<std::string>{"read and written+"});
  content.moveRecord("/moved");
  EXPECT_EQ(journal->uploads()[0].path, "/moved");
  EXPECT_EQ(journal->uploads()[0].reason, "failed");
  content.discard();
  EXPECT_TRUE(waiting().empty() && !content.isUnsent());
}

TEST_F(FileContentTest, WritersWaitForAnUploadAndAnUploadForWriters) {
  auto content = std::make_shared<FileContent>(journal);
  EXPECT_FALSE(content->beginSending(false)) << "there is nothing to upload";
  content->makeEmpty({});
  content->addUser(Access::write);
  EXPECT_FALSE(content->beginSending(true)) << "it is open for writing";
  const auto sending = content->beginSending(false);
  ASSERT_TRUE(sending);
  auto writing = std::async(std::launch::async, [&] { return put(*content, "late"); });
  while (!content->hasWaiters()) std::this_thread::yield();
  EXPECT_EQ(textOf(journal->dataPath(sending->id)), "");
  content->record("/f", Durability::process);
  content->endSending(WriteBase{WriteBase::Kind::revision, "v5"});
  EXPECT_EQ(writing.get(), 0);
  EXPECT_FALSE(content->hasWaiters());
  EXPECT_TRUE(content->isUnsent() && !content->isRecorded());
  EXPECT_EQ(content->base().revision, "v5");
  EXPECT_EQ(read(*content), "late");
  content->beginSending(false);
  content->endSending(std::nullopt);
  EXPECT_TRUE(content->isUnsent()) << "it failed";
  const FileContent::Waiter waiter(content);
  EXPECT_TRUE(content->hasWaiters());
}

TEST_F(FileContentTest, FilesThatStayHereAreNeverUploaded) {
  std::string localId;
  {
    FileContent content(journal);
    EXPECT_EQ(content.makeLocalOnly(), 0);
    put(content, "local");
    EXPECT_FALSE(content.isUnsent());
    content.record("/x.tmp", Durability::process);
    content.moveRecord("/y.tmp");
  }
  ASSERT_EQ(journal->locals().size(), 1U);
  EXPECT_EQ(journal->locals()[0].path, "/y.tmp");
  FileContent adopted(journal);
  EXPECT_EQ(adopted.adopt(journal->locals()[0]), 0);
  EXPECT_EQ(read(adopted), "local");
  EXPECT_EQ(adopted.sendFromNow({WriteBase::Kind::nothing, ""}, "/f"), 0);
  EXPECT_TRUE(adopted.isUnsent() && !adopted.isLocalOnly() && journal->locals().empty());
  EXPECT_EQ(waiting(), std::vector<std::string>{"local"});
  EXPECT_EQ(adopted.keepLocal("/z.tmp"), 0);
  EXPECT_TRUE(waiting().empty() && !adopted.isUnsent());
  EXPECT_EQ(adopted.makeEmpty({}), 0);
  EXPECT_TRUE(adopted.sizeBytes() == 0 && !adopted.isUnsent());
  FileContent fetched(journal);
  fetched.useReader(reader("from the volume"));
  EXPECT_EQ(fetched.keepLocal("/w.tmp"), 0);
  EXPECT_EQ(read(fetched), "from the volume");
  EXPECT_EQ(journal->locals().size(), 2U);
}

TEST(TreeWalks, LoadTheTreeWhenASecondFolderInItIsOpened) {
  struct Case {
    const char* name;
    std::vector<std::string> opened;
    std::vector<std::string> loaded;
    bool isWhole = true;
  };
  const Case cases[] = {{"one folder", {"/", "/a"}, {}},
                        {"the same folder again", {"/a", "/a"}, {}},
                        {"down a path", {"/", "/a", "/a/b", "/a/b/c"}, {}},
                        {"its neighbour", {"/", "/a", "/b"}, {"/"}},
                        {"a walk further down", {"/x/a", "/x/a/i", "/x/b", "/x/b/i"}, {"/x"}},
                        {"folders of different folders", {"/x/a", "/y/a"}, {}},
                        {"a tree that is too large, once", {"/a", "/b", "/c", "/d"}, {"/"}, false}};
  for (const Case& c : cases) {
    const auto volume = std::make_shared<MemoryVolume>();
    volume->onTree([&](const std::string&) { return c.isWhole; });
    TreeWalks walks(volume, 1h);
    for (const std::string& path : c.opened) walks.beforeListing(path, 1, [] { return false; });
    EXPECT_EQ(volume->loadedTrees(), c.loaded) << c.name;
  }
  const auto volume = std::make_shared<MemoryVolume>();
  TreeWalks patient(volume, 0s);
  for (const char* path : {"/a", "/b", "/c"}) patient.beforeListing(path, 1, [] { return false; });
  EXPECT_EQ(volume->loadedTrees(), std::vector<std::string>{}) << "too far apart";
  TreeWalks walks(volume, 1h);
  for (std::int64_t program : {1, 2, 3})
    walks.beforeListing("/" + std::to_string(program), program, [] { return false; });
  EXPECT_EQ(volume->loadedTrees(), std::vector<std::string>{}) << "programs that open one folder each";
}

TEST(TreeWalks, WhoComesMeanwhileWaitsForTheTree) {
  const auto volume = std::make_shared<MemoryVolume>();
  TreeWalks walks(volume, 1h);
  std::promise<void> isLoading;
  std::promise<void> mayEnd;
  volume->onTree([&](const std::string&) {
    isLoading.set_value();
    mayEnd.get_future().wait();
    return true;
  });
  walks.beforeListing("/x/a", 1, [] { return false; });
  auto loading =
      std::async(std::launch::async, [&] { walks.beforeListing("/x/b", 1, [] { return false; }); });
  ASSERT_EQ(isLoading.get_future().wait_for(60s), std::future_status::ready);
  std::promise<void> hasAsked;
  std::once_flag once;
  auto waiting = std::async(std::launch::async, [&] {
    walks.beforeListing("/x/c/d", 2, [&] {
      std::call_once(once, [&] { hasAsked.set_value(); });
      return false;
    });
  });
  ASSERT_EQ(hasAsked.get_future().wait_for(60s), std::future_status::ready) << "it waits";
  walks.beforeListing("/x/c", 3, [] { return true; });  // one that is interrupted does not
  walks.beforeListing("/y/a", 1, [] { return false; });
  EXPECT_EQ(waiting.wait_for(0s), std::future_status::timeout);
  mayEnd.set_value();
  EXPECT_EQ(waiting.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(loading.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(volume->loadedTrees(), std::vector<std::string>{"/x"});
}

}  // namespace

}  // namespace kzv::mount
