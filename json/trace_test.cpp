#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <sstream>

#include <gtest/gtest.h>

#include "foundation/NSLog.h"
#include "json/JSONRepresentation.h"
#include "json/JSONValue.h"
#include "json/JsonTestText.h"
#include "json/QJJsonParser.h"
#include "json/QJJsonWriter.h"
#include "testing/TemporaryFolder.h"

namespace {

std::size_t sizeOfTrace(const QJJsonBase& base) {
  const auto trace = base.errorTrace();
  return trace ? trace->items().size() : 0;
}

TEST(ErrorTrace, ObserversAreToldBeforeAndAfterEachChange) {
  QJJsonParser parser;
  std::vector<std::string> told;
  const auto told_ = [&](const char* moment) {
    return [&told, &parser, moment] { told.push_back(moment + std::to_string(sizeOfTrace(parser))); };
  };
  const auto token = parser.addErrorTraceObserver(told_("will "), told_("did "));
  EXPECT_NE(token, 0U);
  EXPECT_FALSE(parser.objectWithString("[?]"));
  const std::vector<std::string> clearedThenTwo{"will 0", "did 0", "will 0", "did 1", "will 1", "did 2"};
  EXPECT_EQ(told, clearedThenTwo);

  told.clear();
  EXPECT_TRUE(parser.objectWithString("[]"));
  EXPECT_EQ(told, (std::vector<std::string>{"will 2", "did 0"}));

  told.clear();
  parser.removeErrorTraceObserver(token);
  parser.removeErrorTraceObserver(token);
  EXPECT_FALSE(parser.objectWithString("["));
  EXPECT_TRUE(told.empty());
}

TEST(ErrorTrace, AnObserverMayComeAndGoWhileItIsTold) {
  QJJsonWriter writer;
  int first = 0, second = 0, late = 0;
  std::size_t secondToken = 0;
  const auto firstToken = writer.addErrorTraceObserver(nullptr, [&] {
    ++first;
    writer.removeErrorTraceObserver(secondToken);
    if (first == 1) writer.addErrorTraceObserver([&] { ++late; }, nullptr);
  });
  secondToken = writer.addErrorTraceObserver(nullptr, [&] { ++second; });
  EXPECT_NE(firstToken, secondToken);
  writer.addErrorWithCode(QJJsonErrorCode::unsupported, "one");
  writer.addErrorWithCode(QJJsonErrorCode::unsupported, "two");
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(late, 1);
}

TEST(ErrorTrace, IsASnapshotAndChains) {
  QJJsonWriter writer;
  EXPECT_FALSE(writer.errorTrace());
  writer.addErrorWithCode(QJJsonErrorCode::unsupported, "inner");
  const auto before = writer.errorTrace();
  writer.addErrorWithCode(QJJsonErrorCode::fragment, "outer");
  EXPECT_EQ(before->items().size(), 1U);
  EXPECT_EQ(chainOf(writer), (Chain{"1 inner", "4 outer"}));
  writer.clearErrorTrace();
  EXPECT_FALSE(writer.errorTrace());
}

TEST(ErrorTrace, CanBeReadFromAnotherThread) {
  QJJsonParser parser;
  std::atomic<bool> isDone = false;
  std::atomic<std::size_t> most = 0;
  auto reader = std::async(std::launch::async, [&] {
    while (!isDone) most = std::max<std::size_t>(most, sizeOfTrace(parser));
  });
  const std::string text = repeated("[", 100);
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (most == 0 && std::chrono::steady_clock::now() < limit) EXPECT_FALSE(parser.objectWithString(text));
  isDone = true;
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_GT(most, 0U);
}

// Each thread its own parser; names and small numbers are shared, and so is what another thread has read.
TEST(ErrorTrace, ParsersOfManyThreadsShareWhatTheyMay) {
  std::vector<std::future<id>> readers;
  for (int thread = 0; thread < 4; ++thread) {
    readers.push_back(std::async(std::launch::async, [thread] {
      id last;
      for (int pass = 0; pass < 200; ++pass) {
        std::string text = "[";
        for (int at = 0; at < 20; ++at) {
          text += R"({"shared":1,"member)" + std::to_string(pass % 50 * 20 + at) + R"(":[true,)" +
                  std::to_string(thread) + R"(,"a string that is longer than fifteen"]})";
        }
        last = QJJsonParser().objectWithString(text + "]");
      }
      return last;
    }));
  }
  for (int thread = 0; thread < 4; ++thread) {
    const id list = readers[static_cast<std::size_t>(thread)].get();
    ASSERT_EQ(as<NSArray>(list)->items().size(), 20U);
    const auto item = as<NSDictionary>(as<NSArray>(list)->items()[3]);
    EXPECT_EQ(shown(item->objectForKey("member983")),
              "[b1,i" + std::to_string(thread) + ",\"a string that is longer than fifteen\"]");
  }
}

class Log : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(setLogFile(path_)); }
  void TearDown() override { setLogFile(""); }
  std::string logged() const {
    std::stringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }
  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/log";
};

TEST_F(Log, TheOneCallFormsLogTheTraceOnlyOnFailure) {
  EXPECT_EQ(shown(JSONValue(R"({"a":[1]})")), R"({"a":[i1]})");
  EXPECT_EQ(JSONRepresentation(JSONValue(R"([ "a" ])")), R"(["a"])");
  EXPECT_EQ(logged(), "");
  EXPECT_FALSE(JSONValue("[01]"));
  EXPECT_NE(logged().find("-JSONValue failed. Error trace is: ("), std::string::npos) << logged();
  EXPECT_NE(logged().find("Leading 0 disallowed in number"), std::string::npos) << logged();
  EXPECT_NE(logged().find("Expected value while parsing array"), std::string::npos) << logged();
  EXPECT_FALSE(JSONRepresentation(str("a")));
  EXPECT_NE(logged().find("-JSONRepresentation failed. Error trace is: ("), std::string::npos) << logged();
  EXPECT_NE(logged().find("Not valid type for JSON"), std::string::npos) << logged();
}

TEST_F(Log, AHugeKeyInTheTraceIsLoggedSafely) {
  EXPECT_FALSE(JSONValue("{\"code=" + std::string(1'000'000, 'k') + "\":?}"));
  EXPECT_NE(logged().find("-JSONValue failed."), std::string::npos);
}

}  // namespace
