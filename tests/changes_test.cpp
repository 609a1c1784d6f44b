#include <condition_variable>
#include <filesystem>
#include <sstream>

#include "core/KZVCoreObj.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/NSRunLoop.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "tests/PluginFixture.h"

using namespace std::chrono_literals;

namespace {

/// The timer never polls, so that only a long poll can tell of a change.
class LongPollingTest : public PluginTest {
 protected:
  LongPollingTest() : PluginTest("3600", "1") {}
};

/// Polls so often that every listing runs one.
class ChangesTest : public PluginTest {
 protected:
  ChangesTest() : PluginTest("0.05") {}

  /// Lists until the plug-in shows what the service holds; the tree that it shows in the end.
  std::map<std::string, std::int64_t> eventually(const std::map<std::string, std::int64_t>& expected) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
      // A sub-folder that went since its parent was listed fails the whole listing, once.
      const auto listing = bounded([&] { return ada->contentAtPath("/", true, true, nullptr); });
      if (listing && treeOf(*listing) == expected) return expected;
      std::this_thread::yield();
    }
    return listedTree(*ada);
  }
  /// Lets `change` happen in an account that Ada's volume sees only afterwards, so that watchers hear nothing
  /// of it.
  template <class Change>
  void before(Change change) {
    KZVCoreObj::shared().detach(*ada);
    settle(*ada);  // its last poll has ended
    change();
    ada = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
    KZVCoreObj::shared().attach(ada);
    settle(*ada);
  }
  /// Watches a folder of Ada's volume, or of another one.
  template <class Callback>
  std::shared_ptr<FSItem> watch(const char* path, Callback callback,
                                std::shared_ptr<KZVDropboxFS> volume = nullptr) {
    if (!volume) volume = ada;
    auto folder = std::make_shared<FSItem>(path, volume);
    folder->setIsDirectory(true);
    folder->setChangeCallback(std::move(callback));
    volume->startWatchFolder(folder);
    return folder;
  }
  static void stopLoop(const std::shared_ptr<FSItem>& /*changed*/) { NSRunLoop::mainRunLoop()->stop(); }
  /// Until the list of accounts has those just linked: it redraws their panels when it does.
  static void awaitAccountList() {
    std::promise<void> listed;
    KZVDropboxQueue().async([&] { listed.set_value(); });
    ASSERT_EQ(listed.get_future().wait_for(patience), std::future_status::ready);
    NSRunLoop::mainRunLoop()->runUntilDate(NSRunLoop::Clock::now());
  }
};

}  // namespace

TEST_F(ChangesTest, EveryChangeByAnotherDeviceShowsAfterTheNextPoll) {
  standIn.write("/Docs/a.txt", "one");
  standIn.write("/Docs/Sub/deep.txt", "one");
  standIn.write("/Other/b.txt", "one");
  listedTree(*ada);
  struct Case {
    const char* name;
    std::function<void(StandIn&)> change;
  };
  const Case cases[] = {
      {"new file", [](StandIn& s) { s.write("/Docs/new.txt", "12"); }},
      {"new revision", [](StandIn& s) { s.write("/Docs/a.txt", "longer text"); }},
      {"new folder in the root", [](StandIn& s) { s.write("/Third/c.txt", "1"); }},
      {"file deleted", [](StandIn& s) { s.remove("/Docs/new.txt"); }},
      {"folder moved with what is below it", [](StandIn& s) { s.move("/Docs", "/Other/Docs"); }},
      {"file takes a folder's place",
       [](StandIn& s) { s.remove("/Other/Docs/Sub"), s.write("/Other/Docs/Sub", "f"); }},
      {"folder takes a file's place",
       [](StandIn& s) { s.remove("/Other/b.txt"), s.write("/Other/b.txt/in", "f"); }},
      {"folder deleted", [](StandIn& s) { s.remove("/Other"); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.change(standIn);
    const auto expected = standIn.tree();
    EXPECT_EQ(eventually(expected), expected);
    for (const auto& [path, size] : expected) {
      const auto attributes = ada->attributesAtPath(path, nullptr);
      ASSERT_NE(attributes, nullptr) << path;
      EXPECT_EQ(as<NSNumber>(attributes->objectForKey(NSFileSize))->int64Value(), size) << path;
    }
  }
}

TEST_F(ChangesTest, ALocalCopyIsNotOlderThanTheChangeThatAPollHasTold) {
  standIn.write("/Docs/a.txt", "");
  listedTree(*ada);
  for (std::size_t size = 1; size <= 30; ++size) {
    standIn.write("/Docs/a.txt", std::string(size, 'a'));
    ada->pollForChanges();
    const auto copy = ada->requestFileUrl("/Docs/a.txt", nullptr, nullptr);
    ASSERT_NE(copy, nullptr);
    ASSERT_EQ(std::filesystem::file_size(copy->path()), size);
    ada->releaseFileUrl(*copy);
  }
}

TEST_F(ChangesTest, AResetOfTheCursorLosesNothingAndRedrawsEveryPanel) {
  standIn.write("/Docs/a.txt", "one");
  listedTree(*ada);
  int told = 0;
  const auto folder = watch("/Docs", [&](const auto& changed) { ++told, stopLoop(changed); });
  standIn.settings({{"reset_cursors", true}});
  standIn.write("/Docs/a.txt", "changed while no cursor was valid");
  const auto expected = standIn.tree();
  EXPECT_EQ(eventually(expected), expected);
  NSRunLoop::mainRunLoop()->waitUntilDate(NSRunLoop::Clock::now() + 20s);
  EXPECT_GE(told, 1);
}

TEST_F(ChangesTest, TheTimerTellsWatchersOfTheirFoldersOnly) {
  before([&] {
    for (const char* path : {"/Photos/2014/a.jpg", "/PhotosOld/a.jpg", "/Ünï/a.jpg", "/ΟΔΟΣ/a.jpg"})
      standIn.write(path, "one");
  });
  awaitAccountList();
  std::map<std::string, int> told;
  std::vector<std::shared_ptr<FSItem>> watched;
  for (const char* path :
       {"/", "/Photos", "/photos/2014", "/PhotosOld", "/U\u0308nI\u0308", "/ΟΔΟΣ", "/Docs"}) {
    watched.push_back(watch(path, [&](const auto& item) {
      if (item->takeChangeMark()) ++told[item->path()];  // two changes at once make one redraw
      stopLoop(item);
    }));
  }
  ada->startWatchFolder(watched.back());
  ada->stopWatchFolder(watched.back());  // takes both entries
  EXPECT_EQ(ada->watchedFolders().size(), 6U);
  struct Case {
    const char* changed;
    std::map<std::string, int> told;
  };
  // Told are the watched folders whose path begins with the changed folder's, separator or not; so not those
  // above it, and all of them for the root.
  const Case cases[] = {
      {"/Photos/new.jpg", {{"/Photos", 1}, {"/photos/2014", 1}, {"/PhotosOld", 1}}},
      {"/Photos/2014/new.jpg", {{"/photos/2014", 1}}},
      {"/PHOTOS/2014/NEW.JPG", {{"/photos/2014", 1}}},
      {"/PhotosOld/new.jpg", {{"/PhotosOld", 1}}},
      {"/Ünï/new.jpg", {{"/U\u0308nI\u0308", 1}}},
      {"/ΟΔΟΣ/new.jpg", {{"/ΟΔΟΣ", 1}}},
      {"/top.txt",
       {{"/", 1},
        {"/Photos", 1},
        {"/photos/2014", 1},
        {"/PhotosOld", 1},
        {"/U\u0308nI\u0308", 1},
        {"/ΟΔΟΣ", 1}}},
  };
  const auto toldAfter = [&](const std::string& changed, std::size_t count) {
    told.clear();
    standIn.write(changed, changed);
    const auto deadline = NSRunLoop::Clock::now() + 20s;
    while (told.size() < count && NSRunLoop::Clock::now() < deadline)
      NSRunLoop::mainRunLoop()->waitUntilDate(deadline);
    NSRunLoop::mainRunLoop()->runUntilDate(NSRunLoop::Clock::now());
    return told;
  };
  toldAfter("/first.txt", 6);  // comes behind the news of the first cursor, which redraws everything, too
  for (const Case& c : cases) EXPECT_EQ(toldAfter(c.changed, c.told.size()), c.told) << c.changed;
}

TEST_F(ChangesTest, PollsThatFailLoseNothing) {
  before([&] { standIn.write("/Docs/a.txt", "one"); });
  const auto folder = watch("/Docs", stopLoop);
  standIn.fault({{"route", "files/list_folder/continue"}, {"times", 2}, {"status", 500}});
  while (standIn.faultHits() == 0) std::this_thread::yield();  // a poll that had left before sees the change
  standIn.write("/Docs/b.txt", "two");
  EXPECT_TRUE(NSRunLoop::mainRunLoop()->waitUntilDate(NSRunLoop::Clock::now() + 30s));
  EXPECT_EQ(standIn.faultHits(), 2) << "a poll is made again by the next tick, and not before";
}

TEST_F(ChangesTest, ASilentChangeFeedHoldsUpNobody) {
  standIn.write("/Docs/a.txt", "one");
  listedTree(*ada);
  standIn.fault({{"route", "files/list_folder/continue"}, {"times", 0}, {"stall_after", 0}});
  while (standIn.faultHits() == 0) std::this_thread::yield();  // now a poll waits for its answer
  for (int round = 0; round < 100; ++round)
    ASSERT_TRUE(bounded([&] { return ada->contentAtPath("/Docs", false, true, nullptr).has_value(); }));
  EXPECT_NE(bounded([&] { return ada->requestFileUrl("/Docs/a.txt", nullptr, nullptr); }), nullptr);
  EXPECT_EQ(standIn.faultHits(), 1) << "one poll is under way";
}

TEST_F(ChangesTest, NobodyWaitsForTheFirstCursor) {
  standIn.write("/Docs/a.txt", "one");
  auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
  standIn.fault({{"route", "files/list_folder/get_latest_cursor"}, {"times", 0}, {"stall_after", 0}});
  const bool areThere = bounded([&] {
    bool areAll = fresh->contentAtPath("/Docs", false, true, nullptr).has_value();
    for (int round = 0; round < 30; ++round)
      areAll &= fresh->attributesAtPath("/Docs/a.txt", nullptr) != nullptr;
    return areAll;
  });
  EXPECT_TRUE(areThere);
}

TEST_F(ChangesTest, WhatWasShownBeforeTheFirstCursorIsNotKeptAndIsRedrawnWhenItComes) {
  standIn.write("/Docs/a.txt", "one");
  standIn.write("/Docs/b.txt", "one");
  const auto late = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
  KZVCoreObj::shared().attach(late);
  awaitAccountList();
  standIn.fault({{"route", "files/list_folder/get_latest_cursor"}, {"times", 0}, {"status", 500}});
  const auto names = [&] {
    return treeOf(*bounded([&] { return late->contentAtPath("/Docs", true, true, nullptr); }));
  };
  EXPECT_EQ(names().count("/Docs/b.txt"), 1U);
  standIn.remove("/Docs/b.txt");
  EXPECT_EQ(names().count("/Docs/b.txt"), 0U);
  const auto folder = watch("/Docs", stopLoop, late);
  standIn.remove("/Docs/a.txt");  // after the last look, and before the cursor
  standIn.clearFaults();
  EXPECT_TRUE(NSRunLoop::mainRunLoop()->waitUntilDate(NSRunLoop::Clock::now() + 20s));
  EXPECT_TRUE(names().empty());
}

TEST_F(ChangesTest, ACursorThatOnlyFailsIsReplacedAndTheFailuresAreLoggedOnce) {
  standIn.write("/Docs/a.txt", "one");
  listedTree(*ada);
  testing::internal::CaptureStderr();
  standIn.fault({{"route", "files/list_folder/continue"}, {"times", 0}, {"status", 400}});
  standIn.write("/Docs/b.txt", "two");
  const auto expected = standIn.tree();
  EXPECT_EQ(eventually(expected), expected);
  const int seen = standIn.faultHits();
  while (standIn.faultHits() < seen + 6) std::this_thread::yield();
  std::istringstream lines(testing::internal::GetCapturedStderr());
  int told = 0;
  for (std::string line; std::getline(lines, line);) told += line.find("are not seen") != std::string::npos;
  EXPECT_EQ(told, 1);
}

TEST_F(ChangesTest, NoCallbackRunsOnceTheMainThreadHasStoppedWatching) {
  std::vector<std::shared_ptr<FSItem>> watched;
  std::map<std::string, int> told;
  for (const char* path : {"/a", "/b"}) {
    standIn.write(std::string(path) + "/file", "one");
    watched.push_back(std::make_shared<FSItem>(path, ada));
    watched.back()->setIsDirectory(true);
    watched.back()->setChangeCallback([&](const auto& item) {
      ++told[item->path()];
      NSRunLoop::mainRunLoop()->stop();
    });
  }
  awaitAccountList();
  settle(*ada);
  for (const auto& item : watched) ada->startWatchFolder(item);
  standIn.write("/top", "changes the root, so both");
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (!watched[1]->takeChangeMark() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  ada->stopWatchFolder(watched[0]);  // its callback has been queued before the other's
  NSRunLoop::mainRunLoop()->waitUntilDate(NSRunLoop::Clock::now() + 20s);
  EXPECT_EQ(told, (std::map<std::string, int>{{"/b", 1}}));
}

TEST_F(PluginTest, EachTickOfTheTimerPollsHoweverRecentTheLastPollWas) {
  NSTimer timer(
      1s, [](NSTimer&) {}, false);
  standIn.forgetRequests();
  int polls = 0;
  for (const auto end = std::chrono::steady_clock::now() + 20s;
       polls < 3 && std::chrono::steady_clock::now() < end;) {
    KZVDropboxFS::dbTimerIntervalExpired(timer);
    polls += standIn.requests()["files/list_folder/continue"];
  }
  EXPECT_GE(polls, 3);
}

TEST_F(ChangesTest, EveryInstanceOfTheAccountDropsItsCopyAndNoOtherAccountHears) {
  standIn.write("/docs/a.txt", "one");
  const auto bob = open("bob-token");
  const auto second = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
  KZVCoreObj::shared().attach(second);
  awaitAccountList();
  bool bobHeard = false;
  const auto bobsRoot = watch(
      "/", [&](const auto&) { bobHeard = true; }, bob);
  const auto contentIn = [&](KZVDropboxFS& plugin) {
    const auto copy = bounded([&] { return plugin.requestFileUrl("/docs/a.txt", nullptr, nullptr); });
    auto bytes = copy ? readFile(copy->path(), 100).value_or("") : "";
    if (copy) plugin.releaseFileUrl(*copy);
    return bytes;
  };
  for (KZVDropboxFS* plugin : {ada.get(), second.get()}) {
    settle(*plugin);
    EXPECT_TRUE(bounded([&] { return plugin->contentAtPath("/docs", false, true, nullptr).has_value(); }));
    EXPECT_EQ(contentIn(*plugin), "one");
  }
  standIn.write("/docs/a.txt", "two");
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  for (KZVDropboxFS* plugin : {ada.get(), second.get()}) {
    while (contentIn(*plugin) == "one" && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    EXPECT_EQ(contentIn(*plugin), "two");
  }
  NSRunLoop::mainRunLoop()->runUntilDate(NSRunLoop::Clock::now());
  EXPECT_FALSE(bobHeard);
}

TEST_F(ChangesTest, NoListingStaysStaleWhateverTheOrderOfCursorListingAndChange) {
  // The answer of one request is held back, so that the change falls between it and the others.
  for (const char* heldBack :
       {"files/list_folder/get_latest_cursor", "files/list_folder", "files/list_folder/continue"}) {
    SCOPED_TRACE(heldBack);
    standIn.settings({{"page_size", 1}});
    standIn.write("/Race/one", "1");
    standIn.write("/Race/two", "1");
    standIn.fault({{"route", heldBack}, {"times", 1}, {"delay_ms", 300}});
    auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
    auto listing =
        std::async(std::launch::async, [&] { return fresh->contentAtPath("/Race", false, true, nullptr); });
    standIn.write("/Race/two", "changed meanwhile");
    standIn.remove("/Race/one");
    ASSERT_EQ(listing.wait_for(patience), std::future_status::ready);
    const auto expected = standIn.tree();
    std::swap(ada, fresh);
    EXPECT_EQ(eventually(expected), expected);
    std::swap(ada, fresh);
    standIn.clearFaults();
  }
}

TEST_F(LongPollingTest, AWatcherHearsOfChangesLongBeforeTheTimer) {
  standIn.write("/Docs/0", "0");
  const auto folder = std::make_shared<FSItem>("/Docs", ada);
  folder->setIsDirectory(true);
  folder->setChangeCallback([](const auto&) { NSRunLoop::mainRunLoop()->stop(); });
  ada->startWatchFolder(folder);
  // The second change finds the request of the next round, the third one that was made after a lost answer.
  for (const char* name : {"/Docs/1", "/Docs/2", "/Docs/3"}) {
    if (std::string_view(name) == "/Docs/3")
      standIn.fault({{"route", "files/list_folder/longpoll"}, {"drop_answer", true}});
    standIn.write(name, "1");
    const auto isListed = [&] {
      return treeOf(*bounded([&] { return ada->contentAtPath("/Docs", false, true, nullptr); }))
          .contains(name);
    };
    // The first call may be about what was there before.
    while (!isListed())
      ASSERT_TRUE(NSRunLoop::mainRunLoop()->waitUntilDate(NSRunLoop::Clock::now() + 20s)) << name;
  }
}
