#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/DispatchQueue.h"
#include "foundation/Monitor.h"
#include "foundation/NSCondition.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSRunLoop.h"
#include "foundation/NSString.h"
#include "foundation/NSThread.h"
#include "foundation/Reachability.h"

using namespace std::chrono_literals;

namespace {

using Clock = NSRunLoop::Clock;

// Nothing here should take this long; a hang then fails with a line number instead of a time-out of the run.
constexpr auto bound = 20s;

template <class Value>
bool isReady(std::future<Value>& future) {
  return future.wait_for(bound) == std::future_status::ready;
}

bool arrives(std::latch& latch) {
  const auto end = Clock::now() + bound;
  while (!latch.try_wait()) {
    if (Clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

/// A thread inside its run loop for as long as this object lives.
class LoopThread {
 public:
  LoopThread() : running_([this] { run(); }) { thread_ = started_.get_future().get(); }
  ~LoopThread() { thread_->runLoop()->stop(); }

  NSThread& thread() { return *thread_; }
  std::thread::id id() const { return running_.get_id(); }

 private:
  void run() {
    started_.set_value(NSThread::currentThread());
    NSRunLoop::currentRunLoop()->waitUntilDate(Clock::now() + 60s);
  }

  std::promise<std::shared_ptr<NSThread>> started_;
  std::shared_ptr<NSThread> thread_;
  std::jthread running_;
};

/// Runs `block` on a fresh thread, whose run loop is empty.
template <class Block>
auto inBackground(Block block) {
  std::packaged_task<decltype(block())()> task(std::move(block));
  auto result = task.get_future();
  std::thread(std::move(task)).detach();
  return result;
}

void spinUntil(Clock::time_point date) {
  while (Clock::now() < date) std::this_thread::yield();
}

struct CallAtEnd {
  std::function<void()> block;
  ~CallAtEnd() { block(); }
};

}  // namespace

TEST(Monitor, OneThreadAtATimeAndAsOftenAsItLikes) {
  constexpr int threadCount = 16;
  constexpr int rounds = 2000;
  Monitor monitor;
  int value = 0;  // guarded by monitor
  std::atomic<int> intrusions = 0;
  std::vector<std::jthread> threads;
  for (int number = 0; number < threadCount; ++number) {
    threads.emplace_back([&] {
      for (int round = 0; round < rounds; ++round) {
        const std::lock_guard outer(monitor);
        const int before = value;
        {
          const std::lock_guard inner(monitor);
          value = before + 1;
        }
        if (value != before + 1) ++intrusions;  // still held after the inner one is given up
      }
    });
  }
  threads.clear();
  EXPECT_EQ(value, threadCount * rounds);
  EXPECT_EQ(intrusions, 0);
}

TEST(MonitorDeathTest, OnlyTheOwnerMayUnlock) {
  Monitor monitor;
  EXPECT_DEATH(monitor.unlock(), "unlocked by the thread that holds it");
}

TEST(Condition, EachSignalWakesExactlyOneInOrderOfArrival) {
  constexpr int waiterCount = 5;
  NSCondition condition;
  int arrived = 0;  // these three guarded by condition
  int signals = 0;
  std::vector<std::pair<int, int>> woken;  // who, after how many signals
  std::vector<std::promise<void>> wakes(waiterCount);
  std::vector<std::jthread> waiters;
  for (int number = 0; number < waiterCount; ++number) {
    std::promise<void> enters;
    auto hasEntered = enters.get_future();
    waiters.emplace_back([&, number, enters = std::move(enters)]() mutable {
      const std::lock_guard lock(condition);
      ++arrived;
      enters.set_value();
      condition.wait();
      woken.emplace_back(number, signals);
      wakes[woken.size() - 1].set_value();
    });
    ASSERT_TRUE(isReady(hasEntered));
    const std::lock_guard lock(condition);  // free again only once the waiter waits
    ASSERT_EQ(arrived, number + 1);
  }
  for (int number = 0; number < waiterCount; ++number) {
    {
      const std::lock_guard lock(condition);
      ++signals;
      condition.signal();
    }
    auto wake = wakes[static_cast<std::size_t>(number)].get_future();
    ASSERT_TRUE(isReady(wake));
  }
  waiters.clear();
  EXPECT_EQ(woken, (std::vector<std::pair<int, int>>{{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}}));
}

TEST(Condition, ASignalIsLostWhenNobodyWaits) {
  NSCondition condition;
  int signals = 0;  // guarded by condition
  {
    const std::lock_guard lock(condition);
    ++signals;
    condition.signal();
  }
  std::promise<void> enters;
  auto waiter = inBackground([&] {
    const std::lock_guard lock(condition);
    enters.set_value();
    condition.wait();
    return signals;
  });
  auto hasEntered = enters.get_future();
  ASSERT_TRUE(isReady(hasEntered));
  {
    const std::lock_guard lock(condition);
    ++signals;
    condition.signal();
  }
  ASSERT_TRUE(isReady(waiter));
  EXPECT_EQ(waiter.get(), 2);
}

TEST(RunLoop, ServesInOrderAndSurvivesExceptions) {
  auto run = inBackground([] {
    std::vector<int> order;
    const auto loop = NSRunLoop::currentRunLoop();
    for (int number = 0; number < 50; ++number) {
      loop->perform([&order, number] {
        order.push_back(number);
        if (number == 20) throw std::runtime_error("thrown by a test");
        if (number == 21) throw 21;
      });
    }
    loop->perform([&] { loop->perform([&order] { order.push_back(50); }); });
    loop->runUntilDate(Clock::now() + 1h);
    return order;
  });
  ASSERT_TRUE(isReady(run));
  const std::vector<int> order = run.get();
  EXPECT_EQ(order.size(), 51U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(RunLoop, DateEndsTheRunThoughBlocksKeepComing) {
  auto run = inBackground([] {
    const auto loop = NSRunLoop::currentRunLoop();
    int served = 0;
    std::function<void()> again = [&] {
      ++served;
      loop->perform(again);
    };
    again();
    loop->perform([&] { served += 1000; });
    loop->runUntilDate(Clock::now() - 1s);  // past: what waits is served, what they post is not
    return served;
  });
  ASSERT_TRUE(isReady(run));
  EXPECT_EQ(run.get(), 1002);
}

TEST(RunLoop, ASlowTimerDoesNotKeepBlocksOrOtherTimersFromRunning) {
  auto run = inBackground([] {
    const auto loop = NSRunLoop::currentRunLoop();
    bool hasRunBlock = false;
    bool hasFiredOther = false;
    loop->addTimer(std::make_shared<NSTimer>(
        1ms,
        [&](NSTimer&) {
          spinUntil(Clock::now() + 3ms);
          if (hasRunBlock && hasFiredOther) loop->stop();
        },
        true));
    loop->addTimer(std::make_shared<NSTimer>(
        2ms, [&](NSTimer&) { hasFiredOther = true; }, false));
    spinUntil(Clock::now() + 3ms);
    loop->perform([&] { hasRunBlock = true; });
    return loop->waitUntilDate(Clock::now() + bound / 2);
  });
  ASSERT_TRUE(isReady(run));
  EXPECT_TRUE(run.get());
}

TEST(RunLoop, MissedFiringsFoldIntoOneAndTheScheduleStays) {
  static constexpr auto interval = 100ms;
  struct Firings {
    Clock::time_point begin;  // a little before the timer was made
    std::vector<Clock::time_point> times;
  };
  const auto fireThrice = [] {
    Firings firings;
    const auto loop = NSRunLoop::currentRunLoop();
    firings.begin = Clock::now();
    loop->addTimer(std::make_shared<NSTimer>(
        interval,
        [&](NSTimer&) {
          firings.times.push_back(Clock::now());
          if (firings.times.size() == 1) spinUntil(firings.begin + interval * 7 / 2);  // misses 2 and 3
          if (firings.times.size() == 3) loop->stop();
        },
        true));
    loop->waitUntilDate(Clock::now() + bound / 2);
    return firings;
  };
  // A timer that drifts is late every time; a busy machine is not.
  bool keptSchedule = false;
  for (int attempt = 0; attempt < 10 && !keptSchedule; ++attempt) {
    auto run = inBackground(fireThrice);
    ASSERT_TRUE(isReady(run));
    const Firings firings = run.get();
    ASSERT_EQ(firings.times.size(), 3U);
    EXPECT_GE(firings.times[0], firings.begin + interval);
    EXPECT_GE(firings.times[2], firings.begin + 4 * interval) << "a missed firing was delivered on its own";
    keptSchedule = firings.times[2] < firings.begin + interval * 9 / 2;
  }
  EXPECT_TRUE(keptSchedule);
}

TEST(GlobalQueue, NeitherBlockedNorThrowingBlocksStopTheNext) {
  constexpr int blockedCount = 40;
  std::latch allBegan(blockedCount);
  std::latch release(1);
  std::latch allEnded(blockedCount);
  for (int number = 0; number < blockedCount; ++number) {
    DispatchQueue::global().async([&] {
      allBegan.count_down();
      release.wait();
      allEnded.count_down();
      throw std::runtime_error("thrown by a test");
    });
  }
  EXPECT_TRUE(arrives(allBegan));
  const auto runsNext = [] {
    std::promise<void> next;
    auto hasRun = next.get_future();
    DispatchQueue::global().async([&] { next.set_value(); });
    return isReady(hasRun);
  };
  EXPECT_TRUE(runsNext());
  release.count_down();
  ASSERT_TRUE(arrives(allEnded));
  EXPECT_TRUE(runsNext()) << "after what threw";
}

TEST(SerialQueue, OneAtATimeInTheOrderOfEachPoster) {
  constexpr int posterCount = 4;
  constexpr int blocksEach = 500;
  std::latch all(std::ptrdiff_t{posterCount} * blocksEach);
  std::vector<int> last(posterCount, -1);  // guarded by the queue: TSan sees it when blocks overlap
  int disorders = 0;
  {
    const auto queue = DispatchQueue::serial("test");
    std::vector<std::jthread> posters;
    for (int poster = 0; poster < posterCount; ++poster) {
      posters.emplace_back([&, poster] {
        for (int number = 0; number < blocksEach; ++number) {
          queue->async([&, poster, number] {
            int& before = last[static_cast<std::size_t>(poster)];
            if (std::exchange(before, number) != number - 1) ++disorders;
            all.count_down();
          });
        }
      });
    }
  }  // what is queued runs though the queue is gone
  ASSERT_TRUE(arrives(all));
  EXPECT_EQ(disorders, 0);
}

TEST(NotificationCenter, TellsInOrderWhoAsked) {
  NSNotificationCenter center;
  const id object = str("about");
  const id otherObject = str("about");
  std::string told;
  const int first = 0;
  const int second = 0;
  center.addObserver(&first, "name", nullptr, [&](const NSNotification&) { told += "1"; });
  center.addObserver(&second, "name", object.get(), [&](const NSNotification& n) { told += n.name; });
  center.addObserver(&first, "other", nullptr, [&](const NSNotification&) { told += "3"; });
  center.addObserver(&second, "name", nullptr,
                     [&](const NSNotification&) { throw std::runtime_error("test"); });
  center.addObserver(&first, "name", nullptr, [&](const NSNotification&) { told += "4"; });
  struct Case {
    const char* name;
    std::function<void()> before;
    NSNotification posted;
    const char* told;
  };
  const Case cases[] = {
      {"all and about", [] {}, {"name", object, nullptr}, "1name4"},
      {"equal is not the same object", [] {}, {"name", otherObject, nullptr}, "14"},
      {"other name", [] {}, {"other", nullptr, nullptr}, "3"},
      {"removed by name", [&] { center.removeObserver(&first, "name"); }, {"name", object, nullptr}, "name"},
      {"the other name stayed", [] {}, {"other", nullptr, nullptr}, "3"},
      {"removed altogether", [&] { center.removeObserver(&first); }, {"other", nullptr, nullptr}, ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    told.clear();
    c.before();
    center.post(c.posted);
    EXPECT_EQ(told, c.told);
  }
}

TEST(NotificationCenter, ObserversMayComeAndGoWhileBeingTold) {
  NSNotificationCenter center;
  std::string told;
  const int self = 0;
  const int later = 0;
  const int added = 0;
  const auto guard = std::make_shared<int>(7);  // lives in the handler that removes itself
  center.addObserver(&self, "name", nullptr, [&, guard](const NSNotification&) {
    center.removeObserver(&self);
    center.removeObserver(&later);
    center.addObserver(&added, "name", nullptr, [&](const NSNotification&) { told += "added "; });
    told += "self" + std::to_string(*guard) + " ";
  });
  center.addObserver(&later, "name", nullptr, [&](const NSNotification&) { told += "later "; });
  center.post({"name", nullptr, nullptr});
  EXPECT_EQ(told, "self7 ");
  center.post({"name", nullptr, nullptr});
  EXPECT_EQ(told, "self7 added ");
  EXPECT_EQ(guard.use_count(), 1);
}

namespace {

class FakeSource final : public Reachability::Source {
 public:
  NetworkStatus status() const override { return status_; }
  bool start(std::function<void()> changed) override {
    ++starts;
    if (refusesToStart) return false;
    changed_ = std::move(changed);
    return true;
  }
  void becomes(NetworkStatus status) {
    status_ = status;
    changed_();
  }

  int starts = 0;
  bool refusesToStart = false;

 private:
  std::atomic<NetworkStatus> status_{NetworkStatus::reachableViaWiFi};
  std::function<void()> changed_;
};

}  // namespace

TEST(Reachability, PostsChangesForAsLongAsItLives) {
  const auto source = std::make_shared<FakeSource>();
  auto monitor = std::make_shared<Reachability>(source);
  std::vector<NetworkStatus> seen;
  const int observer = 0;
  auto& center = NSNotificationCenter::defaultCenter();
  center.addObserver(&observer, kReachabilityChangedNotification, nullptr, [&](const NSNotification& n) {
    seen.push_back(as<Reachability>(n.object)->currentReachabilityStatus());
  });
  source->refusesToStart = true;
  EXPECT_FALSE(monitor->startNotifier());
  source->refusesToStart = false;
  EXPECT_TRUE(monitor->startNotifier());
  EXPECT_TRUE(monitor->startNotifier());
  EXPECT_EQ(source->starts, 2) << "the refused one and one more";
  source->becomes(NetworkStatus::notReachable);
  source->becomes(NetworkStatus::reachableViaWWAN);
  monitor = nullptr;
  source->becomes(NetworkStatus::reachableViaWiFi);
  center.removeObserver(&observer);
  EXPECT_EQ(seen, (std::vector{NetworkStatus::notReachable, NetworkStatus::reachableViaWWAN}));
}
