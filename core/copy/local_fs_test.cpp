#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/KZVConstants.h"
#include "core/KZVSupport.h"
#include "core/copy/CopyBatch.h"
#include "core/copy/KZVLocalFS.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/Unicode.h"

namespace kzv::copy {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Tree = std::map<std::string, std::string>;  // path -> content; folders end in "/" and have none

const NSDate::Time someTime = std::chrono::system_clock::from_time_t(1'714'548'600);

/// "/d/ /d/a=A": a folder, and a file in it.
Tree tree(const std::string& text) {
  Tree made;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t equals = std::min(word.find('='), word.size());
    made[word.substr(0, equals)] = equals < word.size() ? word.substr(equals + 1) : "";
  }
  return made;
}

fs::path scratch() {
  fs::path folder = fs::temp_directory_path() / ("kzv-copy-" + KZVSupport::uniquePathComponent());
  fs::create_directories(folder);
  return folder;
}

NSErrorRef orderedError() { return std::make_shared<NSError>("TestDomain", 7); }

/// What lies below a folder of the disk.
Tree treeAt(const fs::path& top) {
  Tree tree;
  for (const auto& entry : fs::recursive_directory_iterator(top)) {
    const std::string path = "/" + entry.path().lexically_relative(top).string();
    if (entry.is_directory()) {
      tree[path + "/"] = "";
    } else {
      std::ifstream file(entry.path());
      tree[path] = {std::istreambuf_iterator<char>(file), {}};
    }
  }
  return tree;
}

/// A file system in memory that hands out local copies. An item whose name begins with "fail" fails.
class MemoryVolume : public FSPlugin {
 public:
  explicit MemoryVolume(Tree tree) : tree_(std::move(tree)) {}
  ~MemoryVolume() override { fs::remove_all(copies_); }

  id options() const override { return nullptr; }
  std::string label() const override { return "memory"; }
  bool isFSAvailable() const override { return true; }
  std::shared_ptr<FSItem> parentItem() const override { return nullptr; }
  bool isEjectable() const override { return false; }
  void eject() override {}
  std::shared_ptr<NSURL> tmpFolderUrl() const override { return nullptr; }
  void setTmpFolderUrl(std::shared_ptr<NSURL> /*url*/) override {}
  bool isSeekable() const override { return false; }
  bool isExecutable(const std::string& /*path*/) override { return false; }
  bool isExists(const std::string& path) override { return attributesAtPath(path, nullptr) != nullptr; }
  bool isReadable(const std::string& path) override { return isExists(path); }
  bool isWritable(const std::string& path) override { return isExists(path); }

  std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* /*error*/) override {
    const std::lock_guard lock(mutex_);
    const auto file = tree_.find(path);
    if (file == tree_.end() && path != "/" && !tree_.contains(path + "/")) return nullptr;
    const bool isFile = file != tree_.end() && path != "/";
    const auto size = isFile ? static_cast<std::int64_t>(file->second.size()) : 0;
    return NSDictionary::with(
        {{NSFileSize, NSNumber::withInt(size)},
         {NSFileModificationDate, std::make_shared<NSDate>(someTime)},
         {NSFileType, str(std::string(isFile ? NSFileTypeRegular : NSFileTypeDirectory))}});
  }

  std::optional<FSItems> contentAtPath(const std::string& path, bool /*recursive*/, bool /*showHidden*/,
                                       NSErrorRef* error) override {
    if (failsByName(path, error)) return std::nullopt;
    FSItems items;
    const std::string folder = path == "/" ? "/" : path + "/";
    const std::lock_guard lock(mutex_);
    for (const auto& [entry, content] : tree_) {
      if (!entry.starts_with(folder) || entry == folder) continue;
      const std::size_t slash = entry.find('/', folder.size());
      if (slash != std::string::npos && slash + 1 != entry.size()) continue;
      auto item = std::make_shared<FSItem>(entry.substr(0, slash), shared_from_this());
      item->setIsDirectory(slash != std::string::npos);
      item->setSize(content.size());
      item->setModificationDate(someTime);
      items.push_back(std::move(item));
    }
    return items;
  }

  std::shared_ptr<NSURL> requestFileUrl(const std::string& path, ProgressCallback progress,
                                        NSErrorRef* error) override {
    if (failsByName(path, error)) return nullptr;
    if (onTransfer) onTransfer(path);
    const bool isEndless = path.ends_with("endless");
    bool shouldContinue = true;
    for (const std::uint64_t part : {0U, 500U, 1000U})
      shouldContinue = shouldContinue && (!progress || progress({part, 1000}));
    const auto limit = std::chrono::steady_clock::now() + 20s;
    while (isEndless && shouldContinue && std::chrono::steady_clock::now() < limit)
      shouldContinue = progress({500, 1000});
    if (!shouldContinue) {
      if (isEndless && onStop) onStop();
      setError(error, std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1));
      return nullptr;
    }
    const std::string local = (copies_ / KZVSupport::uniquePathComponent()).string();
    const std::lock_guard lock(mutex_);
    std::ofstream(local) << tree_.at(path);
    held_.insert(local);
    return NSURL::fileURLWithPath(local);
  }
  std::optional<NameProblem> nameProblem(std::string_view name) const override {
    if (name == "reserved") return NameProblem{NameProblem::Kind::reserved, "reserved"};
    return FSPlugin::nameProblem(name);
  }
  std::string nameKey(std::string_view name) const override { return caselessKey(name); }
  void releaseFileUrl(const NSURL& url) override {
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(held_.erase(url.path()), 1U);
  }
  bool writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                 NSErrorRef* error) override {
    if (failsByName(path, error)) return false;
    if (progress && !progress({500, 1000})) {
      setError(error, std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1));
      return false;
    }
    std::ifstream file(source.path());
    const std::lock_guard lock(mutex_);
    tree_[path] = {std::istreambuf_iterator<char>(file), {}};
    return true;
  }
  bool createDirectoryAtPath(const std::string& path, const std::shared_ptr<NSDictionary>& /*attributes*/,
                             NSErrorRef* error) override {
    if (failsByName(path, error)) return false;
    const std::lock_guard lock(mutex_);
    tree_[path + "/"] = "";
    return true;
  }

  Tree tree() const {
    const std::lock_guard lock(mutex_);
    return tree_;
  }
  std::size_t held() const {
    const std::lock_guard lock(mutex_);
    return held_.size();
  }
  std::function<void(const std::string& path)> onTransfer;
  std::function<void()> onStop;  // of the endless file

 private:
  static bool failsByName(const std::string& path, NSErrorRef* error) {
    const bool fails = lastPathComponent(path).starts_with("fail");
    if (fails) setError(error, orderedError());
    return fails;
  }

  const fs::path copies_ = scratch();
  mutable std::mutex mutex_;
  Tree tree_;                   // guarded by mutex_
  std::set<std::string> held_;  // guarded by mutex_
};

class LocalFSTest : public testing::Test {
 protected:
  ~LocalFSTest() override { fs::remove_all(disk_); }

  bool receive(const std::shared_ptr<MemoryVolume>& volume, const std::vector<std::string>& paths,
               const fs::path& to, const KZVLocalFS::ItemCopied& itemCopied = {},
               const ProgressCallback& total = {}) {
    FSItems items;
    for (const std::string& path : paths) items.push_back(std::make_shared<FSItem>(path, volume));
    error_ = nullptr;
    return KZVLocalFS::shared().writeFiles(batch_, items, to.string(), {}, total, itemCopied, &error_);
  }
  bool send(const fs::path& from, const std::shared_ptr<MemoryVolume>& volume, const std::string& to,
            const KZVLocalFS::ItemCopied& itemCopied = {}) {
    error_ = nullptr;
    return KZVLocalFS::shared().sendFiles(batch_, from.string(), volume, to, {}, {}, itemCopied, &error_);
  }
  void write(const std::string& name, const std::string& content) const {
    fs::create_directories((disk_ / name).parent_path());
    std::ofstream(disk_ / name) << content;
  }

  const fs::path disk_ = scratch();
  const KZVBatchId batch_;
  NSErrorRef error_;
};

TEST_F(LocalFSTest, ReceivesWhatIsThere) {
  const Tree remote = tree(
      "/d/ /d/a.txt=A /d/empty= /d/sub/ /d/sub/b=BB /d/hollow/ /d/sub/deep/ /d/sub/deep/c=CCC "
      "/single=single");
  struct Case {
    const char* name;
    std::vector<std::string> paths;
    std::string to;
    const char* before;
    const char* after;
  };
  const Case cases[] = {
      {"a file gets the name given", {"/single"}, "new", "", "/new=single"},
      {"a file goes into a folder", {"/single"}, "to/", "/to/", "/to/ /to/single=single"},
      {"folders above are made", {"/single"}, "x/y/z", "", "/x/ /x/y/ /x/y/z=single"},
      {"several go into one", {"/single", "/d/a.txt"}, "to", "", "/to/ /to/single=single /to/a.txt=A"},
      {"a whole folder",
       {"/d"},
       "copy",
       "",
       "/copy/ /copy/a.txt=A /copy/empty= /copy/hollow/ /copy/sub/ /copy/sub/b=BB /copy/sub/deep/ "
       "/copy/sub/deep/c=CCC"},
      {"a file is replaced, a folder joined",
       {"/d/sub"},
       "copy",
       "/copy/ /copy/b=longer /copy/mine=kept",
       "/copy/ /copy/b=BB /copy/mine=kept /copy/deep/ /copy/deep/c=CCC"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(disk_);
    fs::create_directories(disk_);
    for (const auto& [path, content] : tree(c.before)) {
      fs::create_directories((disk_ / path.substr(1)).parent_path());
      if (!path.ends_with('/')) write(path.substr(1), content);
    }
    const auto volume = std::make_shared<MemoryVolume>(remote);
    EXPECT_TRUE(receive(volume, c.paths, (disk_ / "").string() + c.to))
        << (error_ ? error_->description() : "");
    EXPECT_EQ(treeAt(disk_), tree(c.after));
    EXPECT_EQ(volume->held(), 0U) << "local copies not handed back";
  }
  EXPECT_EQ(fs::last_write_time(disk_ / "copy/b"), std::chrono::file_clock::from_sys(someTime));
}

TEST_F(LocalFSTest, AnItemThatFailsCostsOnlyItself) {
  using Disk = void (*)(const fs::path& place);
  const Disk nothing = [](const fs::path&) {};
  const Disk folder = [](const fs::path& place) { fs::create_directories(place); };
  const Disk file = [](const fs::path& place) { std::ofstream(place) << "file"; };
  const Disk link = [](const fs::path& place) { fs::create_directory_symlink("/tmp", place); };
  const Disk fileLink = [](const fs::path& place) { fs::create_symlink("/dev/null", place); };
  const Disk socket = [](const fs::path& place) { ::mknod(place.c_str(), S_IFSOCK | 0600, 0); };
  struct Case {
    const char* name;
    std::string item;  // in the folder received, a healthy "z" beside it; a folder ends in "/"
    Disk inItsPlace;   // makes what lies there already
    const char* left;  // of it in the target
    int code;
  };
  const Case cases[] = {
      {"a file of the service", "fail", nothing, "", 7},
      {"a folder that cannot be listed", "fail/", nothing, "/fail/", 7},
      {"a name that leads up", "..", nothing, "", EINVAL},
      {"a name too long for the disk", std::string(300, 'n'), nothing, "", ENAMETOOLONG},
      {"a folder where the file should be", "a", folder, "/a/", EISDIR},
      {"a file where the folder should be", "a/", file, "/a=file", ENOTDIR},
      {"a link that leads elsewhere", "a/", link, "/a/", ENOTDIR},
      {"a link where the file should be", "a", fileLink, "/a=", ELOOP},
      {"a socket where the file should be", "a", socket, "/a=", EINVAL},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const bool isFolder = c.item.ends_with('/');
    const std::string item = c.item.substr(0, c.item.size() - (isFolder ? 1 : 0));
    const fs::path target = disk_ / KZVSupport::uniquePathComponent();
    fs::create_directories(target);
    c.inItsPlace(target / item);
    std::vector<CopiedItem> failures;
    const auto volume = std::make_shared<MemoryVolume>(
        tree("/d/ /d/z=Z /d/" + c.item + (isFolder ? " /d/" + c.item + "b=B" : "=x")));
    EXPECT_FALSE(receive(volume, {"/d"}, target, [&](const CopiedItem& copied) {
      if (copied.failure) failures.push_back(copied);
      return true;
    }));
    EXPECT_EQ(treeAt(target), tree(std::string("/z=Z ") + c.left));
    ASSERT_EQ(failures.size(), 1U);
    EXPECT_EQ(failures[0].from, "/d/" + item);
    ASSERT_TRUE(error_);
    EXPECT_EQ(error_->domain(), c.code == 7 ? "TestDomain" : "NSPOSIXErrorDomain");
    EXPECT_EQ(error_->code(), c.code);
    EXPECT_EQ(volume->held(), 0U);
  }
}

TEST_F(LocalFSTest, OnlyAFileIsReplacedAndALinkToOneIsFollowed) {
  struct Case {
    const char* name;
    std::string target;
    const char* written;  // the file that has the new content then; empty: none
    int code;
  };
  const Case cases[] = {
      {"a file", "file", "file", 0},
      {"a link to a file", "link", "file", 0},
      {"a link to a link", "links", "file", 0},
      {"a link that leads nowhere", "dangling", "", ENOENT},
      {"a link to itself", "round", "", ELOOP},
      {"a link to a folder", "folderLink", "", EISDIR},
      {"a socket", "socket", "", EINVAL},
      {"a link to a device", "null", "", EINVAL},
      {"a name that the disk cannot hold", std::string(256, 'n'), "", ENAMETOOLONG},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(disk_);
    write("file", "old");
    fs::permissions(disk_ / "file", fs::perms(0640));
    fs::create_symlink("file", disk_ / "link");
    fs::create_symlink("link", disk_ / "links");
    fs::create_symlink("none", disk_ / "dangling");
    fs::create_symlink("round", disk_ / "round");
    fs::create_symlink(disk_, disk_ / "folderLink");
    fs::create_symlink("/dev/null", disk_ / "null");
    ::mknod((disk_ / "socket").c_str(), S_IFSOCK | 0600, 0);
    const auto volume = std::make_shared<MemoryVolume>(tree("/new=new"));
    bool isFetched = false;
    volume->onTransfer = [&](const std::string&) { isFetched = true; };
    EXPECT_EQ(receive(volume, {"/new"}, disk_ / c.target), c.code == 0);
    EXPECT_EQ(isFetched, c.code == 0) << "what cannot be stored need not come";
    EXPECT_EQ(error_ ? error_->code() : 0, c.code);
    std::ifstream file(disk_ / "file");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), *c.written ? "new" : "old");
    EXPECT_EQ(fs::status(disk_ / "file").permissions(), fs::perms(0640));
    for (const char* link : {"link", "links", "dangling", "round", "folderLink", "null"})
      EXPECT_TRUE(fs::is_symlink(disk_ / link)) << link;
    EXPECT_TRUE(fs::is_socket(disk_ / "socket"));
  }
}

TEST_F(LocalFSTest, WithoutAnObserverTheFirstFailureEndsTheBatch) {
  Tree remote{{"/d/", ""}, {"/d/endless", "E"}, {"/d/fail", "x"}};
  for (int i = 0; i < 100; ++i) remote["/d/z" + std::to_string(i)] = "Z";
  const auto volume = std::make_shared<MemoryVolume>(remote);
  // Only a stop of the batch ends the endless file; the others finish after it.
  std::promise<void> stopped;
  const auto isStopped = stopped.get_future().share();
  volume->onStop = [&] { stopped.set_value(); };
  volume->onTransfer = [&](const std::string& path) {
    if (path.starts_with("/d/z")) isStopped.wait_for(20s);
  };
  EXPECT_FALSE(receive(volume, {"/d"}, disk_ / "to"));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->domain(), "TestDomain") << "what the failure stopped counts as stopped by the person";
  EXPECT_LE(treeAt(disk_ / "to").size(), maxConcurrentCopies)
      << "the rest was copied although the whole had failed";
}

TEST_F(LocalFSTest, AVolumeWithoutVersionsIsReadByRangesAllTheSame) {
  const auto volume = std::make_shared<MemoryVolume>(tree("/d/ /d/f=0123456789"));
  const auto item = volume->itemAtPath("/d/f", &error_);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->size(), 10U);
  EXPECT_EQ(item->modificationDate(), someTime);
  EXPECT_TRUE(item->version().empty());
  EXPECT_TRUE(volume->itemAtPath("/d", &error_)->isDirectory());
  EXPECT_FALSE(volume->itemAtPath("/none", &error_));
  {
    const auto reader = volume->openReader("/d/f", "", nullptr, &error_);
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->size(), 10U);
    std::string buffer(6, '-');
    const auto bytes = std::as_writable_bytes(std::span(buffer));
    EXPECT_EQ(reader->read(2, bytes, nullptr, &error_), 6U);
    EXPECT_EQ(buffer, "234567");
    EXPECT_EQ(reader->read(8, bytes, nullptr, &error_), 2U);
    EXPECT_EQ(buffer, "894567");
    EXPECT_EQ(reader->read(10, bytes, nullptr, &error_), 0U);
    EXPECT_FALSE(reader->read(
        0, bytes, [] { return false; }, &error_));
    EXPECT_EQ(fsErrorCode(error_), FSErrorCode::stopped);
    EXPECT_EQ(volume->held(), 1U);
  }
  EXPECT_EQ(volume->held(), 0U) << "the copy was not handed back";
}

TEST_F(LocalFSTest, AStopEndsAllAndLeavesNoHalfFiles) {
  Tree remote{{"/d/", ""}};
  for (int i = 0; i < 200; ++i) remote["/d/f" + std::to_string(i)] = std::string(10'000, 'x');
  const auto volume = std::make_shared<MemoryVolume>(remote);
  int calls = 0;
  EXPECT_FALSE(receive(volume, {"/d"}, disk_ / "to", {}, [&](NSRange) { return ++calls < 30; }));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->domain(), CanceledByUserErrorDomain);
  EXPECT_EQ(error_->code(), -1);
  EXPECT_EQ(volume->held(), 0U);
  const Tree left = treeAt(disk_ / "to");
  EXPECT_LT(left.size(), 100U);
  for (const auto& [path, content] : left) EXPECT_EQ(content.size(), 10'000U) << path;
}

TEST_F(LocalFSTest, SixteenFilesAreUnderWayAtOnceAndNotMore) {
  Tree remote{{"/d/", ""}};
  for (int i = 0; i < 80; ++i) remote["/d/f" + std::to_string(i)] = "x";
  const auto volume = std::make_shared<MemoryVolume>(remote);
  std::mutex mutex;
  std::condition_variable changed;
  int inFlight = 0;
  int most = 0;
  int arrived = 0;
  // Each transfer waits for fifteen others, as long as there are enough to come.
  volume->onTransfer = [&](const std::string&) {
    std::unique_lock lock(mutex);
    most = std::max(most, ++inFlight);
    const int group = arrived++ / 16;
    changed.notify_all();
    changed.wait_for(lock, 10s, [&] { return arrived >= (group + 1) * 16; });
    --inFlight;
  };
  EXPECT_TRUE(receive(volume, {"/d"}, disk_ / "to"));
  EXPECT_EQ(most, 16);
}

/// Lists a file where there is a folder when it is asked for it, as a service may that does not mean well.
class LyingVolume final : public MemoryVolume {
 public:
  explicit LyingVolume(fs::path copies)
      : MemoryVolume(Tree{{"/d/", ""}, {"/d/x", "1"}, {"/d/y", "2"}}), copies_(std::move(copies)) {}

  std::shared_ptr<NSURL> requestFileUrl(const std::string& /*path*/, ProgressCallback progress,
                                        NSErrorRef* error) override {
    const std::string copy = (copies_ / KZVSupport::uniquePathComponent()).string();
    if (++requests_ > 50) return nullptr;
    auto folder = std::make_shared<FSItem>("/d", shared_from_this());
    const bool isCopied = KZVLocalFS::shared().writeFiles(KZVBatchId(), {std::move(folder)}, copy, nullptr,
                                                          progress, nullptr, error);
    return isCopied ? NSURL::fileURLWithPath(copy) : nullptr;
  }
  int requests() const { return requests_; }

 private:
  const fs::path copies_;
  std::atomic<int> requests_{0};
};

TEST_F(LocalFSTest, AFolderWhereAFileWasListedIsAnErrorAndNoFurtherBatch) {
  const auto volume = std::make_shared<LyingVolume>(disk_);
  std::vector<std::int64_t> codes;
  const auto note = [&](const CopiedItem& item) {
    if (item.failure) codes.push_back(item.failure->code());
    return true;
  };
  EXPECT_FALSE(receive(volume, {"/d"}, disk_ / "d", note));
  EXPECT_EQ(codes, (std::vector<std::int64_t>{EISDIR, EISDIR}));
  EXPECT_EQ(volume->requests(), 2);
}

TEST_F(LocalFSTest, AThreadThatCannotBeStartedIsAnError) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need more address space than can be left";
#endif
  const auto volume = std::make_shared<MemoryVolume>(tree("/f=1"));
  std::ifstream memory("/proc/self/statm");
  rlim_t pages = 0;
  memory >> pages;
  rlimit usual{};
  ASSERT_EQ(::getrlimit(RLIMIT_AS, &usual), 0);
  // Room for what this thread does, but for no other thread's stack of 8 MiB.
  const rlimit scarce{pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + (rlim_t{4} << 20),
                      usual.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &scarce), 0);
  const bool isDone = receive(volume, {"/f"}, disk_ / "f");
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &usual), 0);
  EXPECT_FALSE(isDone);
  EXPECT_EQ(error_ ? error_->code() : 0, EAGAIN);
}

TEST_F(LocalFSTest, TheWholeIsCountedOnceAndNeverGoesBack) {
  const auto volume = std::make_shared<MemoryVolume>(
      Tree{{"/d/", ""}, {"/d/a", std::string(3000, 'a')}, {"/d/s/", ""}, {"/d/s/b", std::string(7000, 'b')}});
  std::uint64_t last = 0;
  CopyCounts counts;
  EXPECT_TRUE(receive(volume, {"/d"}, disk_ / "to", {}, [&](NSRange range) {
    EXPECT_GE(range.location, last);
    EXPECT_EQ(range.length, 1000U);
    last = range.location;
    counts = KZVLocalFS::counts(batch_).value();
    return true;
  }));
  EXPECT_EQ(last, 1000U);
  EXPECT_EQ(counts.bytesDone, 10'000U);
  EXPECT_EQ(counts.bytesKnown, 10'000U);
  EXPECT_EQ(counts.filesDone, 2U);
  EXPECT_EQ(counts.filesKnown, 2U);
  EXPECT_FALSE(KZVLocalFS::counts(batch_)) << "the batch is over";
}

TEST_F(LocalFSTest, SendsATreeAndReportsWhatCannotBeSent) {
  write("d/a", "A");
  write("d/empty", "");
  write("d/sub/b", "BB");
  fs::create_directories(disk_ / "d/hollow");
  fs::create_symlink("a", disk_ / "d/fileLink");
  fs::create_directory_symlink("..", disk_ / "d/folderLink");
  fs::create_symlink("nowhere", disk_ / "d/dangling");
  ASSERT_EQ(::mkfifo((disk_ / "d/pipe").c_str(), 0600), 0);
  write("d/\xff", "x");
  write("d/fail", "x");
  write("d/reserved", "x");
  write("d/Twin", "T");
  write("d/twin", "t");
  write("d/Twins/T", "T");
  write("d/twins/t", "t");
  const auto volume = std::make_shared<MemoryVolume>(Tree{});
  std::map<std::string, std::int64_t> failures;
  EXPECT_FALSE(send(disk_ / "d", volume, "/new", [&](const CopiedItem& item) {
    if (item.failure) failures[lastPathComponent(item.from)] = item.failure->code();
    return true;
  }));
  EXPECT_EQ(
      volume->tree(),
      tree("/new/ /new/a=A /new/empty= /new/hollow/ /new/fileLink=A /new/sub/ /new/sub/b=BB /new/Twin=T "
           "/new/Twins/ /new/Twins/T=T"));
  const std::map<std::string, std::int64_t> expected{
      {"dangling", ENOENT}, {"fail", 7},         {"folderLink", ELOOP}, {"pipe", EINVAL},
      {"\xff", EILSEQ},     {"reserved", EPERM}, {"twin", EEXIST},      {"twins", EEXIST}};
  EXPECT_EQ(failures, expected);
}

}  // namespace

}  // namespace kzv::copy
