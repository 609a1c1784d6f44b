#include <functional>
#include <optional>

#include "core/FSError.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "sdk/DBError.h"
#include "tests/PluginFixture.h"

namespace {
class FailuresTest : public PluginTest {};
}  // namespace

TEST_F(FailuresTest, EachFailureGivesTheRightResultOrAClearErrorAndTheNextCallWorks) {
  struct Case {
    const char* name;
    boost::json::object fault;
    std::optional<FSErrorCode> code;  // none: the listing succeeds all the same
  };
  const Case cases[] = {
      {"429, told when to come back", {{"times", 1}, {"status", 429}, {"retry_after", 1}}, {}},
      {"one 500", {{"times", 1}, {"status", 500}, {"body", "<html>"}}, {}},
      {"nothing but 500", {{"times", 100}, {"status", 500}, {"body", "<html>"}}, FSErrorCode::connection},
      {"cut once in the middle of a page", {{"times", 1}, {"cut_response_after", 200}}, {}},
      {"malformed JSON",
       {{"times", 100}, {"status", 200}, {"body", "{\"entries\":[{]"}},
       FSErrorCode::damaged},
      {"JSON of another shape",
       {{"times", 100}, {"status", 200}, {"body", "{\"entries\":17}"}},
       FSErrorCode::damaged},
      {"refused for good",
       {{"times", 100}, {"status", 400}, {"body", "Error in call"}},
       FSErrorCode::internal},
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
    EXPECT_EQ(items.has_value(), !c.code);
    if (c.code) {
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(fsErrorCode(error), *c.code) << error->description();
    }
    standIn.clearFaults();
    EXPECT_TRUE(bounded([&] { return fresh->contentAtPath("/Docs", false, true, nullptr).has_value(); }));
  }
}

TEST_F(FailuresTest, EachOperationSaysWhatItsErrorMeansAndKeepsTheServicesOwn) {
  const std::string source = home.path() + "/source";
  ASSERT_TRUE(writeFile(source, "bytes"));
  const auto file = NSURL::fileURLWithPath(source);
  const auto answer = [](int status, const char* body) {
    return boost::json::object{{"times", 0}, {"status", status}, {"body", body}};
  };
  struct Case {
    const char* name;
    const char* route;  // null: no fault
    boost::json::object fault;
    FSErrorCode code;
    std::function<bool(KZVDropboxFS&, NSErrorRef*)> succeeds;
  };
  const auto remove = [](KZVDropboxFS& fs, NSErrorRef* error) {
    return fs.removeItemAtPath("/Docs/a.txt", error);
  };
  const auto store = [&](KZVDropboxFS& fs, NSErrorRef* error) {
    return fs.writeFile(*file, "/Docs/b.txt", nullptr, error);
  };
  const Case cases[] = {
      {"nothing there",
       nullptr,
       {},
       FSErrorCode::notFound,
       [](auto& fs, auto error) { return fs.itemAtPath("/none", error) != nullptr; }},
      {"move of nothing",
       nullptr,
       {},
       FSErrorCode::notFound,
       [](auto& fs, auto error) { return fs.moveFromPath("/none", "/x", nullptr, nullptr, error); }},
      {"something in the way",
       nullptr,
       {},
       FSErrorCode::exists,
       [](auto& fs, auto error) { return fs.createDirectoryAtPath("/Docs/a.txt", nullptr, error); }},
      {"a name that the service refuses", "files/create_folder_v2",
       answer(409, R"({"error":{".tag":"path","path":{".tag":"disallowed_name"}}})"),
       FSErrorCode::nameRefused,
       [](auto& fs, auto error) { return fs.createDirectoryAtPath("/x", nullptr, error); }},
      {"no permission", "files/delete_v2",
       answer(409, R"({"error":{".tag":"path_write","path_write":{".tag":"no_write_permission"}}})"),
       FSErrorCode::denied, remove},
      {"too many files", "files/delete_v2", answer(409, R"({"error":{".tag":"too_many_files"}})"),
       FSErrorCode::tooLarge, remove},
      {"no space", "files/upload",
       answer(409, R"({"error":{".tag":"path","reason":{".tag":"insufficient_space"}}})"),
       FSErrorCode::noSpace, store},
      {"an upload whose session is lost", "files/upload",
       answer(409, R"({"error":{".tag":"lookup_failed","lookup_failed":{".tag":"not_found"}}})"),
       FSErrorCode::connection, store},
      {"an online-only document", "files/download", answer(409, R"({"error":{".tag":"unsupported_file"}})"),
       FSErrorCode::unsupported,
       [](auto& fs, auto error) { return fs.requestFileUrl("/Docs/a.txt", nullptr, error) != nullptr; }},
      {"a file that is asked for as a preview", "files/get_thumbnail_v2", answer(500, ""),
       FSErrorCode::connection,
       [](auto& fs, auto error) { return fs.preview("/Docs/p.jpg", error) != nullptr; }},
  };
  standIn.write("/Docs/a.txt", "one");
  standIn.write("/Docs/p.jpg", "picture");
  settle(*ada);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    boost::json::object fault = c.fault;
    if (c.route) {
      fault["route"] = c.route;
      standIn.fault(fault);
    }
    NSErrorRef error;
    EXPECT_FALSE(bounded([&] { return c.succeeds(*ada, &error); }));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), FSErrorDomain);
    EXPECT_EQ(fsErrorCode(error), c.code) << error->description();
    const auto underlying = as<NSError>(error->detail(NSUnderlyingErrorKey));
    ASSERT_NE(underlying, nullptr);
    EXPECT_EQ(underlying->domain(), DBErrorDomain);
    EXPECT_EQ(error->localizedDescription(), underlying->localizedDescription());
    standIn.clearFaults();
  }
}

TEST_F(FailuresTest, ARevokedTokenUnlinksTheAccountAndSaysSo) {
  settle(*ada);
  standIn.settings({{"revoke", "ada-token"}});
  auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
  NSErrorRef error;
  EXPECT_EQ(bounded([&] { return fresh->attributesAtPath("/", &error); }), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::denied);
  // The session hears of it after the caller does; a later request finds the account gone and says nothing.
  KZVDropboxFileManager::dropboxThread()->perform([] {}, true);
  for (int step = 0; step < 2; ++step) {  // the account goes, then the list is made anew
    std::promise<void> done;
    KZVDropboxQueue().async([&] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(patience), std::future_status::ready);
  }
  EXPECT_TRUE(KZVDropboxFSClass::shared().linkedAccountIds().empty());
  EXPECT_EQ(KZVDropboxFSClass::shared().availableRootItems()->items().size(), 0U);
  error = nullptr;
  EXPECT_FALSE(bounded([&] { return fresh->contentAtPath("/", false, true, &error); }));
  EXPECT_EQ(error, nullptr);
}

TEST_F(FailuresTest, WithoutTheServiceACallFailsAtOnceAndWorksAgainLater) {
  settle(*ada);
  auto ending = std::make_unique<StandIn>();
  setenv("KZV_SERVICE_URL", ending->url().c_str(), 1);
  const auto session =
      std::make_shared<DBSession>(KZVDropboxFSAppKey(), KZVDropboxFSAppSecret(), kDBRootDropbox);
  const auto reachable = DBSession::sharedSession();
  DBSession::setSharedSession(session);
  const auto userId = KZVDropboxFSClass::shared().linkAccountWithToken("ada-token", nullptr);
  ASSERT_TRUE(userId);
  ending.reset();  // nobody listens on its port any more
  auto cutOff = std::make_shared<KZVDropboxFS>(nullptr, str(*userId));
  NSErrorRef error;
  EXPECT_FALSE(bounded([&] { return cutOff->contentAtPath("/", false, true, &error); }));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::connection);
  EXPECT_EQ(as<NSError>(error->detail(NSUnderlyingErrorKey))->code(), -7);  // CURLE_COULDNT_CONNECT
  DBSession::setSharedSession(reachable);
  EXPECT_TRUE(bounded([&] { return ada->contentAtPath("/", false, true, nullptr).has_value(); }));
}
