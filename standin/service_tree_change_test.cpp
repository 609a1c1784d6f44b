// Folders, moves, copies, deletions, links and search.

#include <boost/json.hpp>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "standin/ServiceTestClient.h"

namespace kzv::standin::testing {
namespace {

std::vector<std::string> paths(const TestService& service) {
  std::vector<std::string> found;
  const auto page = service.rpc("files/list_folder", R"({"path":"","recursive":true,"limit":2000})").json();
  for (const auto& entry : page.at("entries").as_array()) found.push_back(at(entry, "path_display"));
  return found;
}

std::string outcome(const Answer& answer) {
  return answer.status == 200 ? at(answer.json(), "metadata.path_display") : answer.errorTags();
}

using Paths = std::vector<std::string>;

TEST(Relocation, MovesAndCopiesOrSaysWhyNot) {
  struct Row {
    const char* name;
    const char* route;
    const char* from;
    const char* to;
    const char* more;
    const char* outcome;
  };
  // The tree: /A/f.txt, /A/Sub/g.txt, /B/f.txt, /file
  const Row rows[] = {
      {"move a file", "move_v2", "/a/F.TXT", "/c/New.txt", "", "/c/New.txt"},
      {"move a folder", "move_v2", "/a", "/b/A2", "", "/B/A2"},
      {"copy a folder", "copy_v2", "/a", "/b/A2", "", "/B/A2"},
      {"source missing", "move_v2", "/none", "/c", "", "from_lookup/not_found"},
      {"source malformed", "move_v2", "/a/", "/c", "", "from_lookup/malformed_path"},
      {"target malformed", "move_v2", "/a", "/c/", "", "to/malformed_path"},
      {"target with a bad name", "move_v2", "/a", "/thumbs.db", "", "to/disallowed_name"},
      {"target is a file", "move_v2", "/a", "/file", "", "to/conflict/file"},
      {"target is a folder", "move_v2", "/file", "/a", "", "to/conflict/folder"},
      {"target is a folder, renamed", "move_v2", "/file", "/a", R"(,"autorename":true)", "/a (1)"},
      {"parent is a file", "move_v2", "/a", "/file/x", "", "to/conflict/file_ancestor"},
      {"into itself", "move_v2", "/a", "/a/sub/x", "", "cant_move_folder_into_itself"},
      {"copy into itself", "copy_v2", "/a", "/a/sub/x", "", "duplicated_or_nested_paths"},
      {"onto itself", "move_v2", "/A", "/A", "", "duplicated_or_nested_paths"},
      {"case alone is answered but not done", "move_v2", "/A", "/a", "", "/A"},
      {"beside a name that begins alike", "move_v2", "/a", "/a b", "", "/a b"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const TestService service;
    for (const char* path : {"/A/f.txt", "/A/Sub/g.txt", "/B/f.txt", "/file"}) service.write(path, path);
    const std::string argument =
        fmt::format(R"({{"from_path":"{}","to_path":"{}"{}}})", row.from, row.to, row.more);
    EXPECT_EQ(outcome(service.rpc(std::string("files/") + row.route, argument)), row.outcome);
  }
}

TEST(Relocation, CarriesTheSubtreeAndItsIds) {
  const TestService service;
  service.write("/A/f.txt", "f");
  service.write("/A/Sub/g.txt", "g");
  const std::string id = at(service.metadata("/a/sub/g.txt"), "id");
  service.rpc("files/move_v2", R"({"from_path":"/a","to_path":"/X/Y"})");
  EXPECT_EQ(paths(service), (Paths{"/X", "/X/Y", "/X/Y/f.txt", "/X/Y/Sub", "/X/Y/Sub/g.txt"}));
  EXPECT_EQ(at(service.metadata(id), "path_display"), "/X/Y/Sub/g.txt");
  service.rpc("files/copy_v2", R"({"from_path":"/x/y/sub","to_path":"/copy"})");
  const auto copied = service.metadata("/copy/g.txt");
  EXPECT_EQ(at(copied, "size"), "1");
  EXPECT_NE(at(copied, "id"), id);
}

TEST(Relocation, StopsAtTenThousandItems) {
  const TestService service;
  const auto tree = [&](const char* path, int files) {
    service.admin("POST", "tree",
                  fmt::format(R"({{"account":"{}","path":"{}","folders":0,"files":{},"size":1}})", kToken,
                              path, files));
  };
  tree("/fits", 9999);
  tree("/toomany", 10000);
  EXPECT_EQ(outcome(service.rpc("files/move_v2", R"({"from_path":"/fits","to_path":"/moved"})")), "/moved");
  EXPECT_EQ(outcome(service.rpc("files/move_v2", R"({"from_path":"/toomany","to_path":"/moved2"})")),
            "too_many_files");
}

TEST(Deletion, RemovesTheSubtreeOnly) {
  const TestService service;
  for (const char* path : {"/a/x", "/a/b/y", "/a b", "/ab"}) service.write(path, "1");
  const auto was = service.rpc("files/delete_v2", R"({"path":"/A"})").json();
  EXPECT_EQ(at(was, "metadata..tag"), "folder");
  EXPECT_EQ(paths(service), (Paths{"/a b", "/ab"}));
  EXPECT_EQ(service.rpc("files/delete_v2", R"({"path":"/a"})").errorTags(), "path_lookup/not_found");
}

TEST(Deletion, ChecksTheParentRevision) {
  const TestService service;
  const std::string rev = at(service.upload("files/upload", R"({"path":"/f"})", "1").json(), "rev");
  service.upload("files/upload", R"({"path":"/f","mode":"overwrite"})", "2");
  const auto remove = [&](const std::string& meant) {
    return service.rpc("files/delete_v2", fmt::format(R"({{"path":"/f","parent_rev":"{}"}})", meant));
  };
  EXPECT_EQ(remove(rev).errorTags(), "path_write/conflict/file");
  EXPECT_EQ(remove(at(service.metadata("/f"), "rev")).status, 200);
}

TEST(Deletion, KeepsTheRevisionsOfTheLastThousandFiles) {
  const TestService service;
  const auto upload = [&](const char* argument, const char* text) {
    return "rev:" + at(service.upload("files/upload", argument, text).json(), "rev");
  };
  const std::string first = upload(R"({"path":"/d/F"})", "one");
  const std::string last = upload(R"({"path":"/d/F","mode":"overwrite"})", "two");
  const std::string shared = upload(R"({"path":"/same"})", "two");
  service.rpc("files/delete_v2", R"({"path":"/d"})");
  service.write("/d/f", "another file");
  const auto text = [&](const std::string& rev) { return service.download(object("path", rev)).body; };
  EXPECT_EQ(text(first), "one");
  EXPECT_EQ(text(last), "two");
  EXPECT_EQ(at(service.metadata(last), "path_display"), "/d/F");
  const std::string link = "sharing/create_shared_link_with_settings";
  EXPECT_EQ(service.rpc(link, object("path", last)).errorTags(), "path/not_found");
  EXPECT_EQ(service.rpc("files/get_metadata", object("path", last), kOtherToken).errorTags(),
            "path/not_found");

  service.admin(
      "POST", "tree",
      fmt::format(R"({{"account":"{}","path":"/many","folders":0,"files":1000,"size":1}})", kToken));
  service.rpc("files/delete_v2", R"({"path":"/many"})");
  EXPECT_EQ(service.rpc("files/get_metadata", object("path", first)).errorTags(), "path/not_found");
  EXPECT_EQ(text(shared), "two") << "a content in use elsewhere remains";
}

TEST(Folder, IsMadeWithItsParentsOrConflicts) {
  const TestService service;
  service.write("/file", "1");
  const std::pair<const char*, const char*> rows[] = {
      {R"({"path":"/A/b/C"})", "/A/b/C"},
      {R"({"path":"/a/B"})", "path/conflict/folder"},
      {R"({"path":"/file"})", "path/conflict/file"},
      {R"({"path":"/file/x"})", "path/conflict/file_ancestor"},
      {R"({"path":"/a/b.c","autorename":true})", "/A/b.c"},
      {R"({"path":"/a/b.c","autorename":true})", "/A/b.c (1)"}};
  for (const auto& [argument, expected] : rows)
    EXPECT_EQ(outcome(service.rpc("files/create_folder_v2", argument)), expected) << argument;
}

TEST(Links, AreMadeOnceAndListed) {
  const TestService service;
  service.write("/d/My file.txt", "1");
  const std::string create = "sharing/create_shared_link_with_settings";
  const auto link = service.rpc(create, R"({"path":"/d/my file.txt"})").json();
  const std::string url = at(link, "url");
  EXPECT_NE(url.find("My%20file.txt?rlkey="), std::string::npos) << url;
  const Answer again = service.rpc(create, R"({"path":"/d/my file.txt"})");
  EXPECT_EQ(again.errorTags().substr(0, 26), "shared_link_already_exists");
  EXPECT_EQ(at(again.json(), "error.shared_link_already_exists.metadata.url"), url);
  EXPECT_EQ(service.rpc(create, R"({"path":"/none"})").errorTags(), "path/not_found");
  EXPECT_EQ(service.rpc(create, R"({"path":"/d","settings":{"expires":"2001-01-01T00:00:00Z"}})").errorTags(),
            "settings_error/invalid_settings");
  service.rpc(create, R"({"path":"/d"})");
  const auto count = [&](const std::string& argument) {
    return service.rpc("sharing/list_shared_links", argument).json().at("links").as_array().size();
  };
  EXPECT_EQ(count(R"({"path":"/d/my file.txt"})"), 2U) << "links to parents count";
  EXPECT_EQ(count(R"({"path":"/d/my file.txt","direct_only":true})"), 1U);
  service.admin("POST", "settings", R"({"page_size":1})");
  const auto first = service.rpc("sharing/list_shared_links", "{}").json();
  EXPECT_EQ(at(first, "has_more"), "true");
  EXPECT_EQ(count(object("cursor", at(first, "cursor"))), 1U);
}

TEST(Search, FindsNamesPageByPage) {
  const TestService service;
  for (const char* path : {"/a/Report 1.txt", "/a/report 2.TXT", "/b/old report.pdf", "/b/other.txt"})
    service.write(path, "1");
  service.rpc("files/create_folder_v2", R"({"path":"/reports"})");
  const auto names = [](const boost::json::value& page) {
    Paths found;
    for (const auto& match : page.at("matches").as_array())
      found.push_back(at(match, "metadata.metadata.name"));
    return found;
  };
  const auto search = [&](const std::string& query, const std::string& options) {
    return service.rpc("files/search_v2", R"({"query":")" + query + R"(","options":)" + options + "}").json();
  };
  const auto first = search("REPORT", R"({"max_results":3})");
  EXPECT_EQ(names(first), (Paths{"Report 1.txt", "report 2.TXT", "reports"}))
      << "names that begin with it come first";
  const auto rest = service.rpc("files/search/continue_v2", object("cursor", at(first, "cursor"))).json();
  EXPECT_EQ(names(rest), Paths{"old report.pdf"});
  EXPECT_EQ(at(rest, "has_more"), "false");
  EXPECT_EQ(names(search("report", R"({"path":"/b"})")), Paths{"old report.pdf"});
  EXPECT_EQ(names(search("report", R"({"file_extensions":["pdf"]})")), Paths{"old report.pdf"});
  EXPECT_EQ(names(search("report", R"({"file_categories":["folder"]})")), Paths{"reports"});
}

}  // namespace
}  // namespace kzv::standin::testing
