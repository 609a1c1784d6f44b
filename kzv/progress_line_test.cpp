#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "kzv/ProgressLine.h"

namespace kzv::cli {

namespace {

using namespace std::chrono_literals;

TEST(ProgressLine, ShowsWhatIsKnownAndFitsTheTerminal) {
  struct Case {
    const char* name;
    copy::CopyCounts counts;
    double rate;
    std::size_t width;
    const char* line;
  };
  const Case cases[] = {
      {"nothing known yet", {0, 0, 0, 0}, 0, 79, "[------------------------]    0%  Zero KB of Zero KB"},
      {"one file half-way",
       {6'000'000, 12'000'000, 0, 1},
       1'500'000,
       79,
       "[############------------]   50%  6 MB of 12 MB  1.5 MB/s  0:04 left"},
      {"several files",
       {1000, 4000, 3, 7},
       1000,
       100,
       "[######------------------]   25%  1 KB of 4 KB  1 KB/s  0:03 left  3 of 7 files"},
      {"empty files count as files",
       {0, 0, 3, 4},
       0,
       79,
       "[##################------]   75%  Zero KB of Zero KB  3 of 4 files"},
      {"more than announced", {5000, 4000, 1, 1}, 0, 79, "[########################]  100%  5 KB of 4 KB"},
      {"no time for more than a day",
       {0, 4'000'000'000, 0, 1},
       10,
       79,
       "[------------------------]    0%  Zero KB of 4 GB  10 bytes/s"},
      {"narrow",
       {6'000'000, 12'000'000, 0, 1},
       1'500'000,
       50,
       "[############------------]   50%  6 MB of 12 MB"},
      {"very narrow", {6'000'000, 12'000'000, 0, 1}, 1'500'000, 19, "50%"},
  };
  for (const Case& c : cases) EXPECT_EQ(progressLine(c.counts, c.rate, c.width), c.line) << c.name;
}

TEST(TransferRate, FollowsTheSpeedWithoutJumping) {
  TransferRate rate;
  auto now = TransferRate::Clock::time_point{} + 1h;
  rate.add(0, now);
  EXPECT_EQ(rate.bytesPerSecond(), 0);
  rate.add(1'000'000, now += 1s);
  EXPECT_DOUBLE_EQ(rate.bytesPerSecond(), 1'000'000);
  rate.add(9'000'000, now += 10ms);  // too short a span to tell
  EXPECT_DOUBLE_EQ(rate.bytesPerSecond(), 1'000'000);
  rate.add(1'000'000, now += 1s);  // a pause
  EXPECT_LT(rate.bytesPerSecond(), 1'000'000);
  EXPECT_GT(rate.bytesPerSecond(), 500'000);
  for (int second = 0; second < 30; ++second) rate.add(1'000'000, now += 1s);
  EXPECT_LT(rate.bytesPerSecond(), 100);
}

}  // namespace

}  // namespace kzv::cli
