#include "core/KZVConstants.h"
#include "core/KZVCoreObj.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "tests/PluginFixture.h"

namespace {

class BrowseTest : public PluginTest {
 protected:
  std::optional<std::vector<std::string>> names(const std::string& path, NSErrorRef* error = nullptr) {
    const auto items = bounded([&] { return ada->contentAtPath(path, false, false, error); });
    if (!items) return std::nullopt;
    std::vector<std::string> names;
    for (const auto& item : *items) names.push_back(item->name());
    return names;
  }
  void writeMixedTree() {
    for (const char* path : {"/Docs/Report.txt", "/Docs/Deep/Er/File.TXT", "/.hidden/.dot",
                             "/Name with  spaces.txt", "/Ünïcode/Straße.txt", "/ΟΔΟΣ/İ.txt", "/Empty.bin"}) {
      standIn.write(path, std::string(path) == "/Empty.bin" ? "" : "text");
    }
  }
};

}  // namespace

TEST_F(BrowseTest, ListsExactlyWhatTheServiceHolds) {
  struct Case {
    const char* name;
    boost::json::object settings;
  };
  const Case cases[] = {
      {"pages as they come", {}},
      {"one entry a page", {{"page_size", 1}}},
      {"parents come back in lower case", {{"page_size", 3}, {"display_case_quirk", true}}}};
  writeMixedTree();
  const auto expected = standIn.tree();
  ASSERT_GE(expected.size(), 10U);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    standIn.settings(c.settings);
    auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
    EXPECT_EQ(listedTree(*fresh), expected);
  }
}

TEST_F(BrowseTest, SecondListingAsksTheServiceNothing) {
  writeMixedTree();
  const auto first = listedTree(*ada);
  standIn.forgetRequests();
  EXPECT_EQ(listedTree(*ada), first);
  for (const auto& [path, size] : first) {
    if (path.ends_with('/')) continue;
    EXPECT_NE(ada->attributesAtPath(path, nullptr), nullptr) << path;
  }
  EXPECT_EQ(standIn.requests(), (std::map<std::string, int>()));
}

TEST_F(BrowseTest, NamesAreJudgedAsTheServiceDoes) {
  const auto times = [](std::size_t count, const char* text) {
    std::string name;
    for (std::size_t i = 0; i < count; ++i) name += text;
    return name;
  };
  using Kind = NameProblem::Kind;
  struct Case {
    std::string name;
    std::optional<Kind> problem;
    std::string sameAs = {};  // has this one's key
  };
  const Case cases[] = {
      {"a.txt", {}},
      {"A.TXT", {}, "a.txt"},
      {"caf\u00e9", {}},
      {"CAFE\u0301", {}, "caf\u00e9"},
      {"ΟΔΟΣ", {}},
      {"οδοσ", {}, "ΟΔΟΣ"},
      {"οδος", {}},
      {"<:|?*>", {}},
      {"._x", {}},
      {"~x", {}},
      {"x.tmp", {}},
      {times(255, "e\u0301"), {}},
      {times(127, "\U0001f600"), {}},
      {times(256, "n"), Kind::tooLong},
      {times(128, "\U0001f600"), Kind::tooLong},
      {"a\\b", Kind::malformed},
      {"a\tb", Kind::malformed},
      {"a\x7f", Kind::malformed},
      {"a ", Kind::malformed},
      {"Desktop.INI", Kind::reserved},
      {"Icon\r", Kind::reserved},
      {".dropbox.cache", Kind::reserved},
      {"~$letter.docx", Kind::reserved},
      {".~lock.x#", Kind::reserved},
      {"~WRL0002.TMP", Kind::reserved},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto problem = ada->nameProblem(c.name);
    EXPECT_EQ(problem ? std::optional(problem->kind) : std::nullopt, c.problem);
    const std::size_t before = standIn.tree().size();
    const bool isStored = bounded([&] { return ada->createDirectoryAtPath("/" + c.name, nullptr, nullptr); });
    EXPECT_EQ(isStored, !c.problem.has_value());
    const bool isNew = isStored && c.sameAs.empty();
    EXPECT_EQ(standIn.tree().size(), before + (isNew ? 1 : 0));
    if (!c.sameAs.empty()) {
      EXPECT_EQ(ada->pathKey("/x/" + c.name), ada->pathKey("/X/" + c.sameAs));
    }
  }
}

TEST_F(BrowseTest, ATypedLetterCaseIsShownNowhere) {
  standIn.write("/Docs/Sub/F.txt", "text");
  standIn.write("/local", "text");
  const auto items = ada->contentAtPath("/DOCS/SUB", false, true, nullptr);
  ASSERT_TRUE(items && items->size() == 1);
  EXPECT_EQ(items->front()->path(), "/Docs/Sub/F.txt");
  ASSERT_TRUE(ada->createDirectoryAtPath("/DOCS/New", nullptr, nullptr));
  const auto copy = bounded([&] { return ada->requestFileUrl("/local", nullptr, nullptr); });
  ASSERT_NE(copy, nullptr);
  ASSERT_TRUE(bounded([&] { return ada->writeFile(*copy, "/DOCS/SUB/Put.txt", nullptr, nullptr); }));
  ada->releaseFileUrl(*copy);
  EXPECT_EQ(listedTree(*ada), standIn.tree());
}

TEST_F(BrowseTest, TheStartUpRunsOnce) {
  const auto session = DBSession::sharedSession();
  KZVDropboxFSClass::shared().initialize();
  EXPECT_EQ(DBSession::sharedSession(), session);
}

TEST_F(BrowseTest, AListingCostsItsPagesItsRecordAndTheFirstCursor) {
  standIn.makeTree("/big", 0, 10000);
  standIn.forgetRequests();
  ASSERT_EQ(names("/big")->size(), 10000U);
  int total = 0;
  for (const auto& [route, count] : standIn.requests()) total += count;
  EXPECT_LE(total, 7);
}

TEST_F(BrowseTest, AttributesSayKindSizeAndDate) {
  standIn.write("/Docs/Report.txt", "12345");
  struct Case {
    const char* path;
    const char* type;  // null: does not exist
    std::int64_t size;
    bool hasDate;
  };
  const Case cases[] = {
      {"/", "NSFileTypeDirectory", 0, false},
      {"/Docs", "NSFileTypeDirectory", 0, false},
      {"/DOCS/report.TXT", "NSFileTypeRegular", 5, true},
      {"/Docs/../..", "NSFileTypeDirectory", 0, false},
      {"/Docs/..", "NSFileTypeDirectory", 0, false},
      {"/Docs/none", nullptr, 0, false},
      {"/Docs/Report.txt/x", nullptr, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const auto attributes = bounded([&] { return ada->attributesAtPath(c.path, nullptr); });
    EXPECT_EQ(ada->isWritable(c.path), c.type != nullptr);
    ASSERT_EQ(attributes != nullptr, c.type != nullptr);
    if (!attributes) continue;
    EXPECT_EQ(*textOf(attributes->objectForKey(NSFileType)), c.type);
    EXPECT_EQ(as<NSNumber>(attributes->objectForKey(NSFileSize))->int64Value(), c.size);
    EXPECT_EQ(attributes->objectForKey(NSFileModificationDate) != nullptr, c.hasDate);
  }
}

TEST_F(BrowseTest, WhatIsGoneOrIsNoFolderListsAsNothingWithoutAnError) {
  standIn.write("/Docs/Report.txt", "12345");
  standIn.write("/Old/file", "12345");
  standIn.remove("/Old/file");
  NSErrorRef error;
  EXPECT_FALSE(names("/Docs/Report.txt", &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(names("/Old/file", &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(names("/Old", &error), std::vector<std::string>());
  EXPECT_FALSE(names("/never", &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::notFound);
}

TEST_F(BrowseTest, RootItemsFollowLinkingAndUnlinking) {
  auto& plugin = KZVDropboxFSClass::shared();
  const auto waitForList = [&](std::size_t count) {
    // Refreshes run in order on this queue: one more, and those asked for before it are done.
    std::promise<void> done;
    KZVDropboxQueue().async([&] { done.set_value(); });
    EXPECT_EQ(done.get_future().wait_for(patience), std::future_status::ready);
    const auto items = plugin.availableRootItems();
    EXPECT_EQ(items->items().size(), count);
    return items;
  };
  const auto items = waitForList(1);
  const auto item = as<NSDictionary>(items->items().at(0));
  EXPECT_EQ(*textOf(item->objectForKey(KZVFSLabel)), "Ada");
  EXPECT_EQ(*textOf(item->objectForKey(KZVFSClassName)), "KZVDropboxFS");
  EXPECT_EQ(plugin.makePlugin(nullptr, item->objectForKey(KZVFSOptions)), ada);
  EXPECT_EQ(plugin.makePlugin(nullptr, str("dbid:nobody")), nullptr);
  EXPECT_EQ(plugin.makePlugin(nullptr, NSNumber::withInt(1)), nullptr);
  EXPECT_TRUE(ada->isFSAvailable());

  const auto bob = open("bob-token");
  waitForList(2);
  EXPECT_EQ(bob->label(), "Bob");
  EXPECT_FALSE(bob->isEqual(*ada));
  bob->eject();
  waitForList(1);
  EXPECT_EQ(bob->label(), "Unknown");
  EXPECT_FALSE(bob->isFSAvailable());
  NSErrorRef error;
  EXPECT_FALSE(bounded([&] { return bob->contentAtPath("/", false, true, &error); }));
  EXPECT_EQ(error, nullptr);
}
