// The threads of a mount and what they take their work from: uploads that wait, changed folders, the kernel's
// notices, free space.
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "mount/FolderRefresher.h"
#include "mount/SendQueue.h"
#include "mount/SpaceGauge.h"
#include "mount/kernel/KernelNotices.h"
#include "mount/testing/FakeKernel.h"
#include "mount/testing/JournalTest.h"
#include "mount/testing/MemoryVolume.h"

namespace kzv::mount {

namespace {

using namespace std::chrono_literals;
using Listing = MountNode::Folder::Listing;
using Call = MemoryVolume::Call;

constexpr auto bound = 20s;  // of every wait

/// Notes what the queue orders; succeeds from the `failures`-th attempt on.
class FakeSender final : public SendQueue::Sender {
 public:
  bool sendWaiting(const MountNodeRef& node, const std::shared_ptr<FileContent>& /*content*/) override {
    return note("send " + std::to_string(node->id));
  }
  bool sendLeftover(const UploadJournal::Upload& leftover) override {
    return note("leftover " + leftover.path);
  }
  void listFolder(const std::string& path) override {
    note("list " + path);
    if (onList) onList();
  }
  std::string log() {
    const std::lock_guard lock(mutex_);
    return std::exchange(log_, {});
  }

  int failures = 0;
  std::function<void()> onList;

 private:
  bool note(const std::string& what) {
    const std::lock_guard lock(mutex_);
    log_ += what + "; ";
    return what.starts_with("list") || failures-- <= 0;
  }
  std::mutex mutex_;
  std::string log_;  // guarded by mutex_
};

class SendQueueTest : public JournalTest {
 protected:
  SendQueueTest() {
    delays.firstUploadRetry = 10min;
    delays.longestUploadRetry = 15min;
  }
  std::shared_ptr<FileContent> content() const { return std::make_shared<FileContent>(journal); }
  static MountNodeRef node(NodeId number) { return std::make_shared<MountNode>(number, false); }

  MountDelays delays;
  FakeSender sender;
};

TEST_F(SendQueueTest, SendsWhatIsDueOnceAndWhatFailedLater) {
  SendQueue queue(delays);
  const auto first = content();
  queue.add(node(1), first, 10min);
  queue.add(node(1), first, 0ms);
  queue.add(node(2), content(), 5min);
  queue.start(sender);
  EXPECT_TRUE(queue.flush(bound));
  EXPECT_EQ(sender.log(), "send 1; send 2; ") << "a file that waits already is added twice";
  EXPECT_TRUE(queue.flush(bound)) << "nothing waits";
  sender.failures = 1;
  queue.add(node(3), content(), 10min);
  queue.add(node(4), content(), 10min);
  EXPECT_FALSE(queue.flush(bound)) << "3 still waits";
  EXPECT_EQ(sender.log(), "send 3; send 4; ");
  EXPECT_TRUE(queue.flush(bound));
  EXPECT_EQ(sender.log(), "send 3; ");
}

TEST_F(SendQueueTest, WaitsLongerAfterEachFailure) {
  delays.firstUploadRetry = 1ms;
  delays.longestUploadRetry = 4ms;
  SendQueue queue(delays);
  sender.failures = 12;
  queue.start(sender);
  queue.add(node(1), content(), 0ms);
  const auto end = std::chrono::steady_clock::now() + bound;
  std::size_t attempts = 0;
  while (attempts < 13 && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
    const std::string log = sender.log();
    attempts += static_cast<std::size_t>(std::count(log.begin(), log.end(), ';'));
  }
  EXPECT_EQ(attempts, 13U) << "it was not tried again by itself";
  EXPECT_TRUE(queue.flush(bound));
}

TEST_F(SendQueueTest, AFoldersListingTakesOverItsLeftovers) {
  SendQueue queue(delays);
  for (const char* path : {"/d/adopted", "/gone/kept"})
    queue.addLeftover({journal->newId(), path, {}, {}, {}});
  const auto isAdopted = [](const UploadJournal::Upload& each) { return each.path == "/d/adopted"; };
  const auto adopt = [&](const UploadJournal::Upload& each) -> std::optional<SendQueue::File> {
    return isAdopted(each) ? std::optional(SendQueue::File{node(7), content()}) : std::nullopt;
  };
  sender.onList = [&] { queue.adoptLeftovers(adopt); };
  sender.failures = 1;
  EXPECT_TRUE(queue.hasLeftover(isAdopted));
  queue.start(sender);
  std::string log;
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!log.ends_with("kept; ") && std::chrono::steady_clock::now() < end) log += sender.log();
  EXPECT_EQ(log, "list /d; send 7; list /gone; leftover /gone/kept; ");
  EXPECT_FALSE(queue.hasLeftover(isAdopted));
  queue.changeLeftovers([](UploadJournal::Upload& each) { each.path = "/moved/kept"; });
  queue.addLeftover({journal->newId(), "/new/kept", {}, {}, {}});
  EXPECT_TRUE(queue.flush(bound)) << "what failed is listed again first";
  log = sender.log();
  EXPECT_NE(log.find("list /new; leftover /new/kept; "), std::string::npos) << log;
  EXPECT_NE(log.find("send 7; "), std::string::npos) << log;
}

class RefresherTest : public testing::Test {
 protected:
  MountNodeRef addFolder(const char* name, Listing listing) {
    const TreeLock lock(tree);
    auto folder = tree.make(true);
    folder->inside().listing = listing;
    tree.add(*tree.root(), folder, name);
    return folder;
  }

  MountTree tree{[](std::string_view name) { return std::string(name); }};
  FakeKernel kernel;
  MountDelays delays;
  const std::shared_ptr<ChangedFolders> changed = std::make_shared<ChangedFolders>();
};

TEST_F(RefresherTest, ListsChangedFoldersAgainAndWaitsForOwnChangesToPause) {
  struct Case {
    const char* name;
    Listing listing;
    std::chrono::milliseconds sinceOwnChange;
    std::chrono::milliseconds sinceReport;
    bool waits;
  };
  const Case cases[] = {{"being changed", Listing::complete, 299ms, 0ms, true},
                        {"quiet again", Listing::complete, 300ms, 0ms, false},
                        {"for too long", Listing::complete, 0ms, 2000ms, false},
                        {"almost too long", Listing::complete, 0ms, 1999ms, true},
                        {"out of date already", Listing::outOfDate, 0ms, 0ms, false}};
  for (const Case& c : cases) {
    const auto now = ChangedFolders::Clock::now();
    const auto folder = addFolder(c.name, c.listing);
    const TreeLock lock(tree);
    folder->inside().changedHereAt = now - c.sinceOwnChange;
    EXPECT_EQ(FolderRefresher::shouldWait(*folder, {folder, now - c.sinceReport}, now, delays), c.waits)
        << c.name;
  }
}

TEST_F(RefresherTest, ListsAFolderOnceAndAgainWhileThatFails) {
  delays.refresh = delays.firstRefreshRetry = 1ms;
  const auto shown = addFolder("shown", Listing::complete);
  const auto failing = addFolder("failing", Listing::complete);
  const auto unknown = addFolder("unknown", Listing::unknown);
  const auto busy = addFolder("busy", Listing::complete);
  const auto removed = addFolder("removed", Listing::complete);
  const auto gone = addFolder("gone", Listing::complete);
  std::uint64_t changesBefore = 0;
  {
    const TreeLock lock(tree);
    MountTree::noteChangeHere(busy.get());
    tree.remove(removed);
    changesBefore = unknown->inside().changes;
  }
  delays.longestRefreshDelay = 50ms;
  delays.quietFolder = 10min;
  std::mutex mutex;
  std::map<std::string, int> lists;
  const auto listsOf = [&](const char* name) {
    const std::lock_guard lock(mutex);
    return lists[name];
  };
  for (const auto& folder : {shown, removed, unknown, shown, gone, busy, failing}) changed->add(folder);
  FolderRefresher refresher(
      tree, changed, kernel,
      [&](const MountNodeRef& folder) {
        const TreeLock lock(tree);
        EXPECT_EQ(folder->inside().listing, Listing::outOfDate);
        const std::lock_guard guard(mutex);
        if (folder == gone) return ++lists["gone"], ENOENT;
        if (++lists[folder->name] < 3 && (folder == failing || folder == busy)) return EIO;
        folder->inside().listing = Listing::complete;
        return 0;
      },
      delays);
  refresher.start();
  EXPECT_TRUE(kernel.took("listing " + std::to_string(failing->id)));
  EXPECT_TRUE(kernel.took("listing " + std::to_string(busy->id))) << "put back and forgotten";
  const auto end = std::chrono::steady_clock::now() + bound;
  while ((listsOf("failing") < 3 || listsOf("busy") < 3) && std::chrono::steady_clock::now() < end)
    std::this_thread::yield();
  {
    const std::lock_guard guard(mutex);
    EXPECT_EQ(lists, (std::map<std::string, int>{{"shown", 1}, {"gone", 1}, {"failing", 3}, {"busy", 3}}));
  }
  const TreeLock lock(tree);
  EXPECT_GT(unknown->inside().changes, changesBefore) << "its first listing may be in flight";
}

TEST(KernelNotices, WaitForRequestsInTheirFolder) {
  KernelNotices notices(bound);
  std::promise<void> other;
  std::promise<void> sent;
  notices.start();
  std::atomic<bool> isUsed{true};
  {
    const KernelNotices::FolderUse use(notices, 7);
    const KernelNotices::FolderUse again(notices, 7);
    notices.addFor(7, [&] {
      EXPECT_FALSE(isUsed) << "sent while a request works in the folder";
      sent.set_value();
    });
    notices.add([&] { other.set_value(); });
    EXPECT_EQ(other.get_future().wait_for(bound), std::future_status::ready);
    isUsed = false;
  }
  EXPECT_EQ(sent.get_future().wait_for(bound), std::future_status::ready);
  KernelNotices impatient(1ms);
  std::promise<void> late;
  const KernelNotices::FolderUse use(impatient, 7);
  impatient.addFor(7, [&] { late.set_value(); });
  impatient.start();
  EXPECT_EQ(late.get_future().wait_for(bound), std::future_status::ready) << "not for ever";
  impatient.stop();
  impatient.add([] { ADD_FAILURE() << "sent after stop()"; });
}

TEST(SpaceGauge, AsksOnceInAWhileAndGoesOnWithWhatItKnows) {
  const auto volume = std::make_shared<MemoryVolume>();
  SpaceGauge gauge(volume, 10min);
  volume->fail(Call::space, FSErrorCode::connection, 1);
  EXPECT_EQ(gauge.space().error, EIO);
  EXPECT_EQ(gauge.space().error, EIO);
  EXPECT_EQ(volume->count(Call::space), 1) << "asked again at once";
  SpaceGauge impatient(volume, 0ms);
  EXPECT_EQ(impatient.space().value.totalBytes, 1000U);
  EXPECT_EQ(impatient.space().value.freeBytes, 0U) << "more is used than there is";
  volume->fail(Call::space, FSErrorCode::connection, 1);
  volume->onNext(Call::space, [&] { EXPECT_EQ(impatient.space().value.totalBytes, 1000U); });
  EXPECT_EQ(impatient.space().error, 0) << "the older answer is good enough";
}

}  // namespace

}  // namespace kzv::mount
