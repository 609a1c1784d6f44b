#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "tests/PluginFixture.h"

namespace {
class FailuresTest : public PluginTest {};
}  // namespace

TEST_F(FailuresTest, EachFailureGivesTheRightResultOrAClearErrorAndTheNextCallWorks) {
  struct Case {
    const char* name;
    boost::json::object fault;
    std::int64_t code;  // 0: the listing succeeds all the same
  };
  const Case cases[] = {
      {"429, told when to come back", {{"times", 1}, {"status", 429}, {"retry_after", 1}}, 0},
      {"one 500", {{"times", 1}, {"status", 500}, {"body", "<html>"}}, 0},
      {"nothing but 500", {{"times", 100}, {"status", 500}, {"body", "<html>"}}, 500},
      {"cut once in the middle of a page", {{"times", 1}, {"cut_response_after", 200}}, 0},
      {"malformed JSON", {{"times", 100}, {"status", 200}, {"body", "{\"entries\":[{]"}}, 101},
      {"JSON of another shape", {{"times", 100}, {"status", 200}, {"body", "{\"entries\":17}"}}, 101},
      {"refused for good", {{"times", 100}, {"status", 400}, {"body", "Error in call"}}, 400},
  };
  standIn.write("/Docs/a.txt", "one");
  settle(*ada);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    boost::json::object fault = c.fault;
    fault["route"] = "files/list_folder";
    standIn.fault(fault);
    auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
    NSErrorRef error;
    const auto items = bounded([&] { return fresh->contentAtPath("/Docs", false, true, &error); });
    EXPECT_GE(standIn.faultHits(), 1);
    EXPECT_EQ(items.has_value(), c.code == 0);
    if (c.code != 0) {
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->code(), c.code) << error->description();
    }
    standIn.clearFaults();
    EXPECT_TRUE(bounded([&] { return fresh->contentAtPath("/Docs", false, true, nullptr).has_value(); }));
  }
}

TEST_F(FailuresTest, ARevokedTokenUnlinksTheAccountAndSaysSo) {
  settle(*ada);
  standIn.settings({{"revoke", "ada-token"}});
  auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
  NSErrorRef error;
  EXPECT_EQ(bounded([&] { return fresh->attributesAtPath("/", &error); }), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 401);
  // The session hears of it after the caller does; a later request finds the account gone and says nothing.
  std::promise<void> seen;
  KZVDropboxFileManager::dropboxThread()->perform([] {}, true);
  KZVDropboxQueue().async([&] { seen.set_value(); });
  ASSERT_EQ(seen.get_future().wait_for(patience), std::future_status::ready);
  EXPECT_TRUE(KZVDropboxFSClass::shared().linkedAccountIds().empty());
  EXPECT_EQ(KZVDropboxFSClass::shared().availableRootItems()->items().size(), 0U);
  error = nullptr;
  EXPECT_FALSE(bounded([&] { return fresh->contentAtPath("/", false, true, &error); }));
  EXPECT_EQ(error, nullptr);
}

TEST_F(FailuresTest, WithoutTheServiceACallFailsAtOnceAndWorksAgainLater) {
  settle(*ada);
  setenv("KZV_SERVICE_URL", "http://127.0.0.1:9", 1);  // nobody listens on the discard port
  const auto session =
      std::make_shared<DBSession>(KZVDropboxFSAppKey(), KZVDropboxFSAppSecret(), kDBRootDropbox);
  const auto reachable = DBSession::sharedSession();
  DBSession::setSharedSession(session);
  auto cutOff = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
  NSErrorRef error;
  EXPECT_FALSE(bounded([&] { return cutOff->contentAtPath("/", false, true, &error); }));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), -7);  // CURLE_COULDNT_CONNECT
  DBSession::setSharedSession(reachable);
  EXPECT_TRUE(bounded([&] { return ada->contentAtPath("/", false, true, nullptr).has_value(); }));
}
