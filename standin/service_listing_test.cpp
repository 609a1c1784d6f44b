// Listings, cursors and the change feed.

#include <boost/json.hpp>
#include <future>
#include <map>
#include <random>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "standin/ServiceTestClient.h"

namespace kzv::standin::testing {
namespace {

namespace json = boost::json;

/// A client's model of a tree, updated by the published rules: entries in order; a file replaces what is
/// there and its children, a folder keeps the children, a deletion removes them.
class Model {
 public:
  void apply(const json::value& entry) {
    const std::string tag = at(entry, ".tag");
    const std::string path = at(entry, "path_lower");
    if (tag == "folder") {
      if (items_.count(path) != 0 && items_[path] != "folder") items_.erase(path);
      items_[path] = "folder";
      return;
    }
    items_.erase(path);
    items_.erase(items_.lower_bound(path + "/"), items_.lower_bound(path + "0"));
    if (tag == "file")
      items_[path] = at(entry, "content_hash") + " " + at(entry, "rev") + " " + at(entry, "id");
  }
  std::string text() const {
    std::string out;
    for (const auto& [path, what] : items_) out += fmt::format("{} = {}\n", path, what);
    return out;
  }
  std::vector<std::string> paths() const {
    std::vector<std::string> paths;
    for (const auto& [path, what] : items_) paths.push_back(path);
    return paths;
  }

 private:
  std::map<std::string, std::string> items_;
};

struct Walk {
  Model model;
  std::string cursor;
  int pages = 0;
};

const std::string kWhole = R"({"path":"","recursive":true})";

Answer proceed(const TestService& service, const std::string& cursor) {
  return service.rpc("files/list_folder/continue", object("cursor", cursor));
}

std::string latestCursor(const TestService& service) {
  return at(service.rpc("files/list_folder/get_latest_cursor", kWhole).json(), "cursor");
}

/// Kind and place of every entry of a page.
std::vector<std::string> told(const json::value& page) {
  std::vector<std::string> told;
  for (const auto& entry : page.at("entries").as_array())
    told.push_back(fmt::format("{} {}", at(entry, ".tag"), at(entry, "path_display")));
  return told;
}

// Follows has_more; `between` runs before each further page.
void follow(const TestService& service, Answer answer, Walk& walk,
            const std::function<void()>& between = {}) {
  for (;;) {
    ASSERT_EQ(answer.status, 200) << answer.body;
    const json::value page = answer.json();
    for (const auto& entry : page.at("entries").as_array()) walk.model.apply(entry);
    walk.cursor = at(page, "cursor");
    ++walk.pages;
    if (at(page, "has_more") != "true") return;
    ASSERT_LT(walk.pages, 20000) << "the feed does not end";
    if (between) between();
    answer = proceed(service, walk.cursor);
  }
}

Walk listAll(const TestService& service, const std::string& argument = kWhole) {
  Walk walk;
  follow(service, service.rpc("files/list_folder", argument), walk);
  return walk;
}

void catchUp(const TestService& service, Walk& walk) { follow(service, proceed(service, walk.cursor), walk); }

/// Random changes of all kinds to a few names, so that they often concern the same item.
class RandomChanges {
 public:
  explicit RandomChanges(const TestService& service, unsigned seed) : service_(service), random_(seed) {}

  void make(int count) {
    for (int i = 0; i < count; ++i) makeOne();
  }

 private:
  std::string somePath() {
    std::string path;
    const int depth = 1 + pick(3);
    for (int i = 0; i < depth; ++i) path += fmt::format("/{}{}", pick(2) ? "n" : "N b", pick(3));
    return path;
  }
  int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

  void makeOne() {
    switch (pick(8)) {
      case 0:
        service_.rpc("files/create_folder_v2", object("path", somePath()));
        break;
      case 1:
        service_.rpc("files/delete_v2", object("path", somePath()));
        break;
      case 2:
      case 3:
      case 4:
        service_.rpc(pick(3) ? "files/move_v2" : "files/copy_v2",
                     fmt::format(R"({{"from_path":"{}","to_path":"{}"}})", somePath(), somePath()));
        break;
      default:
        service_.upload("files/upload", R"({"path":")" + somePath() + R"(","mode":"overwrite"})",
                        std::to_string(pick(1000)));
    }
  }

  const TestService& service_;
  std::mt19937 random_;
};

class FeedOfPages : public ::testing::TestWithParam<int> {};

TEST_P(FeedOfPages, ReproducesTheTreeWhateverHappens) {
  const TestService service;
  service.admin("POST", "settings", fmt::format(R"({{"page_size":{}}})", GetParam()));
  RandomChanges changes(service, static_cast<unsigned>(GetParam()));
  changes.make(60);
  Walk walk = listAll(service);
  for (int round = 0; round < 12; ++round) {
    changes.make(15);
    catchUp(service, walk);
    const Walk fresh = listAll(service);
    ASSERT_EQ(walk.model.text(), fresh.model.text()) << "round " << round;
  }
}

TEST_P(FeedOfPages, ToleratesChangesDuringAListing) {
  const TestService service;
  service.admin("POST", "settings", fmt::format(R"({{"page_size":{}}})", GetParam()));
  RandomChanges changes(service, 100 + static_cast<unsigned>(GetParam()));
  changes.make(80);
  Walk walk;
  int left = 40;
  follow(service, service.rpc("files/list_folder", kWhole), walk, [&] {
    if (left-- > 0) changes.make(1);
  });
  EXPECT_EQ(walk.model.text(), listAll(service).model.text());
}

INSTANTIATE_TEST_SUITE_P(PageSizes, FeedOfPages, ::testing::Values(1, 7, 2000));

TEST(Listing, ShowsDirectChildrenOrTheWholeSubtree) {
  const TestService service;
  for (const char* path : {"/A/x.txt", "/A/Sub/y.txt", "/A b/z.txt", "/Ab.txt"}) service.write(path, "text");
  using Paths = std::vector<std::string>;
  EXPECT_EQ(listAll(service, R"({"path":""})").model.paths(), (Paths{"/a", "/a b", "/ab.txt"}));
  EXPECT_EQ(listAll(service, R"({"path":"/a"})").model.paths(), (Paths{"/a/sub", "/a/x.txt"}));
  EXPECT_EQ(listAll(service, R"({"path":"/A","recursive":true,"limit":1})").model.paths(),
            (Paths{"/a", "/a/sub", "/a/sub/y.txt", "/a/x.txt"}))
      << "a recursive listing holds the folder itself, and nothing of its neighbours";
  EXPECT_EQ(service.rpc("files/list_folder", R"({"path":"/ab.txt"})").errorTags(), "path/not_folder");
}

TEST(Listing, NamesTheSameFolderById) {
  const TestService service;
  service.write("/Docs/Sub/a.txt", "text");
  const std::string id = at(service.metadata("/docs"), "id");
  EXPECT_EQ(listAll(service, R"({"path":")" + id + "\"}").model.paths(),
            std::vector<std::string>{"/docs/sub"});
  EXPECT_EQ(listAll(service, R"({"path":")" + id + "/SUB\"}").model.paths(),
            std::vector<std::string>{"/docs/sub/a.txt"});
  EXPECT_EQ(listAll(service, R"({"path":"ns:4711001/Docs"})").model.paths(),
            std::vector<std::string>{"/docs/sub"});
}

TEST(Listing, RemembersDeletedPathsOnRequest) {
  const TestService service;
  service.write("/d/gone.txt", "1");
  service.write("/d/kept.txt", "2");
  service.rpc("files/delete_v2", R"({"path":"/D/Gone.txt"})");
  const auto entries = service.rpc("files/list_folder", R"({"path":"/d","include_deleted":true,"limit":1})");
  EXPECT_EQ(at(entries.json(), "entries.0.path_lower"), "/d/kept.txt");
  const auto rest = proceed(service, at(entries.json(), "cursor"));
  EXPECT_EQ(at(rest.json(), "entries.0..tag"), "deleted") << rest.body;
  EXPECT_EQ(at(rest.json(), "entries.0.path_display"), "/d/gone.txt");
  EXPECT_EQ(at(rest.json(), "has_more"), "false");
  EXPECT_EQ(service.rpc("files/get_metadata", R"({"path":"/d/gone.txt"})").status, 409);
  const auto kind = [&] {
    const std::string withDeleted = R"({"path":"/d/gone.txt","include_deleted":true})";
    return at(service.rpc("files/get_metadata", withDeleted).json(), ".tag");
  };
  EXPECT_EQ(kind(), "deleted");
  service.write("/d/gone.txt", "3");
  EXPECT_EQ(kind(), "file");
}

TEST(Feed, ReportsAFolderMoveAsDeletionAndNewSubtree) {
  const TestService service;
  service.write("/Old/a.txt", "a");
  service.write("/Old/Sub/b.txt", "b");
  const std::string cursor = latestCursor(service);
  const std::string id = at(service.metadata("/old/a.txt"), "id");
  service.admin("POST", "move", fmt::format(R"({{"account":"{}","from":"/old","to":"/New"}})", kToken));
  const auto page = proceed(service, cursor).json();
  EXPECT_EQ(told(page), (std::vector<std::string>{"deleted /Old", "folder /New", "file /New/a.txt",
                                                  "folder /New/Sub", "file /New/Sub/b.txt"}));
  EXPECT_EQ(at(page, "entries.2.id"), id) << "a move keeps ids";
}

TEST(Feed, OfAFolderCoversItsChildrenOnly) {
  const TestService service;
  service.write("/w/a.txt", "1");
  const Walk start = listAll(service, R"({"path":"/w"})");
  service.write("/elsewhere.txt", "2");
  service.write("/w/deeper/c.txt", "3");
  service.write("/w/b.txt", "4");
  const auto page = proceed(service, start.cursor).json();
  EXPECT_EQ(told(page), (std::vector<std::string>{"folder /w/deeper", "file /w/b.txt"}));
}

TEST(Cursor, OfAFolderThatWasDeletedOrReplaced) {
  const TestService service;
  service.write("/p/w/a.txt", "1");
  const Walk gone = listAll(service, R"({"path":"/p/w"})");
  const std::string argument = object("cursor", gone.cursor);
  service.rpc("files/move_v2", R"({"from_path":"/p","to_path":"/q"})");
  EXPECT_EQ(service.rpc("files/list_folder/continue", argument).errorTags(), "path/not_found");
  service.rpc("files/delete_v2", R"({"path":"/q/w/a.txt"})");
  service.rpc("files/move_v2", R"({"from_path":"/q","to_path":"/p"})");
  EXPECT_EQ(service.rpc("files/list_folder/continue", argument).errorTags(), "reset")
      << "what was deleted while the folder was away can only be seen by listing again";
}

TEST(Cursor, IsResetByOrderAndBoundToItsAccount) {
  const TestService service;
  const Walk walk = listAll(service);
  const std::string argument = object("cursor", walk.cursor);
  EXPECT_EQ(service.rpc("files/list_folder/continue", argument, kOtherToken).status, 400);
  EXPECT_EQ(service.rpc("files/list_folder/continue", argument).status, 200);
  std::string forged = argument;
  forged[20] = forged[20] == 'A' ? 'B' : 'A';
  EXPECT_EQ(service.rpc("files/list_folder/continue", forged).status, 400);
  service.admin("POST", "settings", R"({"reset_cursors":true})");
  EXPECT_EQ(service.rpc("files/list_folder/continue", argument).errorTags(), "reset");
  EXPECT_EQ(service.rpc("files/list_folder/longpoll", argument, "").errorTags(), "reset");
}

TEST(Longpoll, WakesUpForAChange) {
  const TestService service;
  const std::string cursor = latestCursor(service);
  const std::string argument = object("cursor", cursor);
  auto answer =
      std::async(std::launch::async, [&] { return service.rpc("files/list_folder/longpoll", argument, ""); });
  EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
      << "nothing has changed yet";
  service.write("/new.txt", "1");
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(15)), std::future_status::ready);
  EXPECT_EQ(answer.get().body, R"({"changes":true})");
}

TEST(Longpoll, EndsWithTheService) {
  TestService service;
  const std::string cursor = latestCursor(service);
  auto answer = std::async(std::launch::async, [&] {
    return service.rpc("files/list_folder/longpoll", object("cursor", cursor), "");
  });
  while (service.admin("GET", "requests").as_array().size() < 2) std::this_thread::yield();
  service.service().stop();
  EXPECT_EQ(answer.wait_for(std::chrono::seconds(15)), std::future_status::ready);
}

TEST(Display, QuirkLowersParentsOnly) {
  const TestService service;
  service.write("/Docs/Sub/File.TXT", "1");
  service.admin("POST", "settings", R"({"display_case_quirk":true})");
  EXPECT_EQ(at(service.metadata("/docs/sub/file.txt"), "path_display"), "/docs/sub/File.TXT");
}

TEST(TeamRoot, PathsAreRelativeToTheChosenRoot) {
  const TestService service;
  service.write("/mine.txt", "1");
  service.admin("POST", "settings", fmt::format(R"({{"account":"{}","team_root":true}})", kToken));
  const auto account = service.rpc("users/get_current_account", "null").json();
  EXPECT_EQ(at(account, "root_info..tag"), "team");
  EXPECT_EQ(at(account, "root_info.home_path"), "/Ann Example");
  EXPECT_EQ(listAll(service).model.paths(), std::vector<std::string>{"/mine.txt"});
  const std::string root = at(account, "root_info.root_namespace_id");
  Walk walk;
  follow(service,
         service.send(
             {.target = "/2/files/list_folder",
              .headers = {"Content-Type: application/json", std::string("Authorization: Bearer ") + kToken,
                          R"(Dropbox-API-Path-Root: {".tag":"root","root":")" + root + "\"}"},
              .body = kWhole}),
         walk);
  EXPECT_EQ(walk.model.paths(), (std::vector<std::string>{"/ann example", "/ann example/mine.txt"}));
}

TEST(Seed, SampleAccountIsLivelyAndTheSameEveryTime) {
  ServiceOptions options;
  options.seedSample = true;
  options.accounts = {{"Sample User", "sample.user@example.com", kToken}};
  const TestService first(options);
  const TestService second(options);
  const Walk walk = listAll(first, R"({"path":"","recursive":true,"limit":2000})");
  EXPECT_EQ(walk.model.text(), listAll(second, R"({"path":"","recursive":true,"limit":2000})").model.text());
  EXPECT_EQ(listAll(first, R"({"path":"/many files"})").model.paths().size(), 1200U);
  const Answer picture = first.download(R"({"path":"/photos/screenshot 1.png"})");
  EXPECT_EQ(picture.body.substr(1, 3), "PNG");
  EXPECT_TRUE(listAll(first, R"({"path":"/empty folder"})").model.paths().empty());
}

TEST(Persistence, StateOutlivesTheProcess) {
  const auto folder = std::filesystem::temp_directory_path() / fmt::format("kzv-service-test-{}", getpid());
  std::filesystem::remove_all(folder);
  ServiceOptions options;
  options.dataFolder = folder;
  std::string cursor;
  {
    const TestService service(options);
    service.write("/a.txt", "1");
    cursor = listAll(service).cursor;
    service.write("/b.txt", std::string(100000, 'b'));
  }
  {
    const TestService service(options);
    const auto page = proceed(service, cursor).json();
    EXPECT_EQ(at(page, "entries.0.path_lower"), "/b.txt");
    EXPECT_EQ(service.download(R"({"path":"/b.txt"})").body, std::string(100000, 'b'));
  }
  const auto permissions = std::filesystem::status(folder).permissions();
  EXPECT_EQ(permissions & (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
            std::filesystem::perms::none);
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace kzv::standin::testing
