#include <array>
#include <boost/json.hpp>
#include <cstdlib>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include "sdk/DBMetadata.h"
#include "sdk/wire/IconNames.h"
#include "sdk/wire/RecordReader.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

namespace {

TEST(Record, KeepsWhatItWasBuiltFrom) {
  struct Case {
    const char *path, *lowercasePath, *rev, *filename, *itemId;
  };
  const Case cases[] = {
      {"/", "/", "", "/", ""},
      {"/Report.PDF", "/report.pdf", "015f00aa11bb2cc", "Report.PDF", "id:Zk3Qw8_smpAAAAAAAAAAQ1"},
      {"/A/b/C d", "/a/b/c d", "015f00aa11bb2cc330000000012d3e4", "C d", "id:short"},
      // A key that no lower-casing gives.
      {"/\xCE\xA3\xCE\xA3", "/\xCF\x83\xCF\x83", "", "\xCE\xA3\xCE\xA3", "ns:4711001:22-characters-all"},
      {"/a", "/a", "000000000", "a", ""},
      {"/a", "/a", "Rev-With-Other-Characters-And-More-Than-32-Of-Them", "a", "id:"},
      {"/a", "/a", "0AF", "a", "id:with-more-than-22-characters"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + c.rev);
    DBMetadata::Fields fields;
    fields.path = c.path;
    fields.lowercasePath = c.lowercasePath;
    fields.rev = c.rev;
    fields.itemId = c.itemId;
    const DBMetadata record(std::move(fields));
    EXPECT_EQ(record.path(), c.path);
    EXPECT_EQ(record.lowercasePath(), c.lowercasePath);
    EXPECT_EQ(record.rev(), c.rev);
    EXPECT_EQ(record.itemId(), c.itemId);
    EXPECT_EQ(record.filename(), c.filename);
  }
}

// A million of them are cached. The bound holds a name of 38 bytes and the item's id (22).
TEST(Record, IsSmall) {
  constexpr std::size_t number = 10'000;
  const auto folder = std::make_shared<const std::string>("/Some folder with a name/and one more below it");
  std::vector<std::shared_ptr<const DBMetadata>> records;
  records.reserve(number);
  const std::size_t before = ::mallinfo2().uordblks;
  for (std::size_t i = 0; i < number; ++i) {
    DBMetadata::Fields fields;
    fields.folderPath = folder;
    fields.name = "Photograph from the holidays " + std::to_string(i) + ".jpeg";
    fields.rev = "015f00aa11bb2cc330000000012d3e4";
    fields.itemId = "id:Zk3Qw8_smpAAAAAAAAAAQ1";
    records.push_back(std::make_shared<const DBMetadata>(std::move(fields)));
  }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' own allocator does not count here";
#endif
  EXPECT_LT((::mallinfo2().uordblks - before) / number, 264U);
}

std::shared_ptr<const DBMetadata> read(const std::string& json, const char* folder, bool* understood) {
  const auto document = servicejson::Document::parse(json);
  if (!document) return nullptr;
  RecordReader reader;
  auto record =
      reader.record(document->root(), folder ? std::make_shared<const std::string>(folder) : nullptr);
  *understood = reader.isUnderstood();
  return record;
}

TEST(RecordReader, TakesThePathFromTheFolderAndTheRestFromTheAnswer) {
  struct Case {
    const char* name;
    const char* fields;  // of the answer
    const char* folder;  // null: not known
    const char* path;    // null: no record
    bool understood;
  };
  const Case cases[] = {
      {"folder known", R"(".tag":"folder","name":"B","path_lower":"/a/b","path_display":"/a/B")", "/A",
       "/A/B", true},
      {"in the root", R"(".tag":"folder","name":"B","path_lower":"/b","path_display":"/B")", "/", "/B", true},
      {"folder not known", R"(".tag":"folder","name":"B","path_lower":"/a/b","path_display":"/A/B")", nullptr,
       "/A/B", true},
      {"no display path", R"(".tag":"folder","name":"B","path_lower":"/a/b")", nullptr, "/a/B", true},
      {"unknown kind", R"(".tag":"hologram","name":"B","path_lower":"/b")", "/", nullptr, true},
      {"no kind", R"("name":"B","path_lower":"/b")", "/", nullptr, false},
      {"no name", R"(".tag":"folder","path_lower":"/b")", "/", nullptr, false},
      {"name is dots", R"(".tag":"folder","name":"..","path_lower":"/b")", "/", nullptr, false},
      {"name holds a slash", R"(".tag":"folder","name":"a/b","path_lower":"/b")", "/", nullptr, false},
      {"name holds NUL", R"(".tag":"folder","name":"a\u0000b","path_lower":"/b")", "/", nullptr, false},
      {"no path at all", R"(".tag":"folder","name":"B")", nullptr, nullptr, false},
      {"file without rev", R"(".tag":"file","name":"B","path_lower":"/b","size":1)", "/", nullptr, false},
      {"negative size", R"(".tag":"file","name":"B","path_lower":"/b","rev":"111111111","size":-1)", "/",
       nullptr, false},
      {"endless size",
       R"(".tag":"file","name":"B","path_lower":"/b","rev":"111111111","size":18446744073709551615)", "/",
       nullptr, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    bool understood = false;
    const auto record = read("{" + std::string(c.fields) + "}", c.folder, &understood);
    EXPECT_EQ(understood, c.understood);
    EXPECT_EQ(record ? record->path() : "none", c.path ? c.path : "none");
  }
}

TEST(RecordReader, ReadsAFile) {
  bool understood = false;
  const auto record = read(
      R"({".tag":"file","name":"P.JPG","path_lower":"/p.jpg","path_display":"/P.JPG","id":"id:x","client_modified":"2001-01-01T00:00:00Z",)"
      R"("server_modified":"2024-05-01T09:31:12Z","rev":"015f00aa11bb2cc330000000012d3e4","size":4194305,"novelty":[1]})",
      "/", &understood);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->rev(), "015f00aa11bb2cc330000000012d3e4");
  EXPECT_EQ(record->itemId(), "id:x");
  EXPECT_EQ(record->totalBytes(), 4194305);
  EXPECT_EQ(NSDate::iso8601(*record->lastModifiedDate()), "2024-05-01T09:31:12Z");
  EXPECT_TRUE(record->thumbnailExists());
  EXPECT_EQ(record->icon(), "page_white_picture");
  EXPECT_FALSE(record->isDirectory());
}

using Listings = std::map<std::string, std::string>;

/// Folder -> its children, each as path, kind and revision, of a tree below "/Top".
Listings treeOf(const std::vector<std::string>& pages) {
  DBMetadata::Fields top;
  top.path = "/Top";
  top.isDirectory = true;
  TreeBuilder tree(std::make_shared<const DBMetadata>(top));
  for (const std::string& entries : pages) {
    const auto page = servicejson::Document::parse(R"({"entries":[)" + entries + "]}");
    if (!tree.addPage(*servicejson::array(page->root(), "entries"))) return {{"broken", ""}};
  }
  Listings listings;
  for (const auto& folder : tree.folders()) {
    std::string& children = listings[folder->path()];
    for (const auto& child : *folder->contents())
      children += child->path() + (child->isDirectory() ? "/ " : ":" + child->rev() + " ");
  }
  return listings;
}

std::string entry(const char* tag, const std::string& lowercase, const std::string& name,
                  const char* rev = "") {
  return fmt::format(
      R"({{".tag":"{}","name":"{}","path_lower":"{}","path_display":"/tOP/x/{}","rev":"{}","size":1}})", tag,
      name, lowercase, name, rev);
}

TEST(Tree, HasTheListingsThatAWalkWouldFind) {
  const std::string own = entry("folder", "/top", "Top");
  const std::string a = entry("folder", "/top/a", "A");
  const std::string f1 = entry("file", "/top/a/f", "F", "111111111");
  const std::string f2 = entry("file", "/top/a/f", "f", "222222222");
  const std::string b = entry("folder", "/top/a/b", "B");
  const std::string g = entry("file", "/top/a/b/g", "g", "333333333");
  const Listings whole{{"/Top", "/Top/A/ "},
                       {"/Top/A", "/Top/A/B/ /Top/A/F:111111111 "},
                       {"/Top/A/B", "/Top/A/B/g:333333333 "}};
  struct Case {
    const char* name;
    std::vector<std::string> pages;
    Listings listings;
  };
  const Case cases[] = {
      {"in order", {own + "," + a, f1 + "," + b, g}, whole},
      {"children before their folders", {g + "," + f1, b, a + "," + own}, whole},
      {"of two entries the later one holds",
       {f1 + "," + a, f2},
       {{"/Top", "/Top/A/ "}, {"/Top/A", "/Top/A/f:222222222 "}}},
      {"renamed in letter case meanwhile",
       {a, f1, entry("folder", "/top/a", "a")},
       {{"/Top", "/Top/a/ "}, {"/Top/a", "/Top/a/F:111111111 "}}},
      {"removed with everything below",
       {a, b + "," + g, entry("deleted", "/top/a/b", "B")},
       {{"/Top", "/Top/A/ "}, {"/Top/A", ""}}},
      {"removed and made anew",
       {a, b + "," + g, entry("deleted", "/top/a/b", "B"), b},
       {{"/Top", "/Top/A/ "}, {"/Top/A", "/Top/A/B/ "}, {"/Top/A/B", ""}}},
      {"a file in a folder's place",
       {a, f1, entry("file", "/top/a", "A", "444444444")},
       {{"/Top", "/Top/A:444444444 "}}},
      {"a folder that was never told", {g}, {{"/Top", ""}}},
      {"the top removed", {a, f1, entry("deleted", "/top", "Top")}, {{"/Top", ""}}},
      {"outside of the folder", {entry("file", "/topper/x", "x", "111111111")}, {{"broken", ""}}},
      {"a name that leads elsewhere", {entry("file", "/top/x", "../x", "111111111")}, {{"broken", ""}}},
  };
  for (const Case& c : cases) EXPECT_EQ(treeOf(c.pages), c.listings) << c.name;
}

TEST(IconNames, FollowNameKindAndPlace) {
  struct Case {
    const char *name, *icon;
    bool preview;
  };
  const Case cases[] = {
      {"a.pdf", "page_white_acrobat", false},  {"a.JPeG", "page_white_picture", true},
      {"a.heic", "page_white_picture", false}, {"a.tar.gz", "page_white_compressed", false},
      {".pdf", "page_white", false},           {"a.averyveryverylongextension", "page_white", false}};
  for (const Case& c : cases) {
    EXPECT_EQ(iconForFile(c.name), c.icon) << c.name;
    EXPECT_EQ(isPreviewable(c.name, 1000), c.preview) << c.name;
  }
  EXPECT_FALSE(isPreviewable("a.jpg", 0));
  EXPECT_FALSE(isPreviewable("a.jpg", 20 * 1024 * 1024 + 1));
  EXPECT_EQ(iconForFolder("/public", false), "folder_public");
  EXPECT_EQ(iconForFolder("/a/public", false), "folder");
  EXPECT_EQ(iconForFolder("/public", true), "folder_user");
}

}  // namespace

}  // namespace kzv::sdk
