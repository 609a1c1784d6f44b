#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filemanager/LongPoll.h"

using namespace std::chrono_literals;

namespace {

using Clock = LongPoll::Clock;

/// A service and a clock that a test moves. Notes what the long poll does, as "wait c1", "cancel", "poll",
/// "pause 2".
class SimulatedEnvironment final : public LongPoll::Environment {
 public:
  void wait(const std::string& cursor, std::chrono::seconds limit) override {
    notes.push_back("wait " + cursor);
    waitedLimit = limit;
    isWaiting = true;
  }
  void cancelWait() override {
    notes.emplace_back("cancel");
    isWaiting = false;
  }
  void poll() override { notes.emplace_back("poll"); }
  void startPause(Clock::duration pause) override {
    pauseEnd = time + pause;
    notes.push_back("pause " +
                    std::to_string(std::chrono::duration_cast<std::chrono::seconds>(pause).count()));
  }
  Clock::time_point now() const override { return time; }
  double randomFraction() override { return chance; }

  std::vector<std::string> takeNotes() { return std::exchange(notes, {}); }

  Clock::time_point time{1h};
  Clock::time_point pauseEnd{};
  std::chrono::seconds waitedLimit{};
  std::vector<std::string> notes;
  double chance = 0;
  bool isWaiting = false;
};

using Notes = std::vector<std::string>;

class LongPollTest : public testing::Test {
 protected:
  void watched() {
    poll.polled("c1", false);
    poll.setWatched(true);
    line.takeNotes();
  }
  SimulatedEnvironment line;
  LongPoll poll{line};
};

}  // namespace

TEST_F(LongPollTest, WaitsOnlyWithACursorAndAWatcher) {
  poll.setWatched(true);
  EXPECT_EQ(line.takeNotes(), Notes());
  poll.polled("c1", false);
  EXPECT_EQ(line.takeNotes(), Notes{"wait c1"});
  EXPECT_GE(line.waitedLimit, 30s);
  EXPECT_LE(line.waitedLimit, 480s);
  poll.setWatched(false);
  EXPECT_EQ(line.takeNotes(), Notes{"cancel"});
  poll.polled("c2", true);
  poll.pauseEnded();
  EXPECT_EQ(line.takeNotes(), Notes());
  poll.setWatched(true);
  EXPECT_EQ(line.takeNotes(), Notes{"wait c2"});
}

TEST_F(LongPollTest, WhatComesOfEachAnswer) {
  struct Case {
    const char* name;
    Clock::duration waited;
    std::function<void(LongPoll&)> what;
    Notes notes;
  };
  const Case cases[] = {
      {"a change", 60s, [](LongPoll& p) { p.answered(true, 0s); }, {"poll"}},
      {"a change that another poll has fetched meanwhile",
       60s,
       [](LongPoll& p) { p.polled("c2", false), p.answered(true, 0s); },
       {"wait c2"}},
      {"its poll brings the change",
       60s,
       [](LongPoll& p) { p.answered(true, 0s), p.polled("c2", true); },
       {"poll", "wait c2"}},
      {"the service wants a rest",
       60s,
       [](LongPoll& p) { p.answered(true, 70s), p.polled("c2", true), p.pauseEnded(); },
       {"poll", "pause 70", "wait c2"}},
      {"its poll fails",
       60s,
       [](LongPoll& p) { p.answered(true, 0s), p.pollFailed(), p.pauseEnded(); },
       {"poll", "pause 2", "wait c1"}},
      {"a change at once, so that a round takes a second",
       0s,
       [](LongPoll& p) { p.answered(true, 0s), p.polled("c2", true), p.pauseEnded(); },
       {"poll", "pause 1", "wait c2"}},
      {"no change", 330s, [](LongPoll& p) { p.answered(false, 0s); }, {"wait c1"}},
      {"no change, told at once by something that is not the service",
       0s,
       [](LongPoll& p) { p.answered(false, 0s), p.pauseEnded(), p.answered(false, 0s), p.pauseEnded(); },
       {"pause 2", "wait c1", "pause 4", "wait c1"}},
      {"cut at once, twice",
       0s,
       [](LongPoll& p) { p.failed(0s), p.pauseEnded(), p.failed(0s); },
       {"pause 2", "wait c1", "pause 4"}},
      {"cut after a minute, which will happen again", 60s, [](LongPoll& p) { p.failed(0s); }, {"pause 2"}},
      {"too many requests", 0s, [](LongPoll& p) { p.failed(90s); }, {"pause 90"}},
      {"another poll brings what it waits for: its connection may be dead",
       60s,
       [](LongPoll& p) { p.polled("c2", true); },
       {"cancel", "wait c2"}},
      {"another poll brings nothing", 60s, [](LongPoll& p) { p.polled("c2", false); }, {}},
      {"the machine slept", 5s, [](LongPoll& p) { p.restart(); }, {"cancel", "wait c1"}},
      {"another network, in a pause",
       0s,
       [](LongPoll& p) { p.failed(0s), p.restart(), p.failed(0s); },
       {"pause 2", "wait c1", "pause 2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SimulatedEnvironment own;
    LongPoll fresh(own);
    fresh.polled("c1", false);
    fresh.setWatched(true);
    own.takeNotes();
    own.time += c.waited;
    c.what(fresh);
    EXPECT_EQ(own.notes, c.notes);
  }
}

TEST_F(LongPollTest, WakeUpsForNothingAndFailuresBecomeRare) {
  watched();
  const auto requestsInAnHour = [&](const std::function<void()>& answer) {
    int waits = 0;
    for (const auto end = line.time + 1h; line.time < end;) {
      waits += static_cast<int>(std::exchange(line.isWaiting, false));
      answer();
      if (line.isWaiting) continue;
      line.time = line.pauseEnd;
      poll.pauseEnded();
    }
    return waits;
  };
  EXPECT_LE(requestsInAnHour([&] { poll.answered(true, 0s), poll.polled("c1", false); }), 30);
  EXPECT_LE(requestsInAnHour([&] { poll.failed(0s); }), 30);
}

TEST_F(LongPollTest, AnIdleHourCostsAFewRequests) {
  watched();
  int waits = 1;
  double chance = 0;
  for (const auto end = line.time + 1h; line.time < end; ++waits) {
    chance = chance < 1 ? chance + 0.1 : 0;
    line.time += line.waitedLimit + std::chrono::duration_cast<Clock::duration>(90s * chance);
    poll.answered(false, 0s);
  }
  RecordProperty("waits", waits);
  EXPECT_LE(waits, 13);
  EXPECT_EQ(line.takeNotes().size() + 1, static_cast<std::size_t>(waits)) << "no poll, no pause";
}
