// Uploads and downloads: modes and conflicts, sessions, ranges, pictures, quota.

#include <boost/json.hpp>
#include <future>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "standin/Encoding.h"
#include "standin/ServiceTestClient.h"
#include "standin/store/BlockHash.h"

namespace kzv::standin::testing {
namespace {

constexpr std::size_t kBlock = 4194304;

std::string session(const TestService& service, const std::string& bytes,
                    const std::string& argument = "{}") {
  return at(service.upload("files/upload_session/start", argument, bytes).json(), "session_id");
}

Answer append(const TestService& service, const std::string& id, std::size_t offset, const std::string& bytes,
              bool close = false) {
  return service.upload(
      "files/upload_session/append_v2",
      fmt::format(R"({{"cursor":{{"session_id":"{}","offset":{}}},"close":{}}})", id, offset, close), bytes);
}

Answer finish(const TestService& service, const std::string& id, std::size_t offset, const std::string& path,
              const std::string& bytes = {}, const std::string& more = {}) {
  return service.upload(
      "files/upload_session/finish",
      fmt::format(R"({{"cursor":{{"session_id":"{}","offset":{}}},"commit":{{"path":"{}"{}}}}})", id, offset,
                  path, more),
      bytes);
}

std::string content(const TestService& service, const std::string& path) {
  return service.download(object("path", path)).body;
}

TEST(Upload, FollowsTheTableOfModesAndConflicts) {
  // /t/x.txt is absent, a file with the text "same", or a folder; the upload's text is "same" or "other".
  struct Row {
    const char* there;
    std::string mode;  // REV stands for the present revision, OLD for an earlier one
    const char* flags;
    const char* bytes;
    const char* result;  // name of the file returned, or error tags
    bool isNewRev;
  };
  const std::string add = "\"add\"", overwrite = "\"overwrite\"";
  const std::string update = R"({".tag":"update","update":"REV"})";
  const std::string stale = R"({".tag":"update","update":"OLD"})";
  constexpr const char *strict = R"(,"strict_conflict":true)", *renaming = R"(,"autorename":true)";
  const Row rows[] = {
      {"nothing", add, "", "other", "x.txt", true},
      {"nothing", overwrite, "", "other", "x.txt", true},
      {"nothing", stale, "", "other", "x.txt", true},
      {"nothing", stale, strict, "other", "path/conflict/file", false},
      {"folder", add, "", "other", "path/conflict/folder", false},
      {"folder", overwrite, "", "other", "path/conflict/folder", false},
      {"folder", stale, "", "other", "path/conflict/folder", false},
      {"folder", stale, renaming, "other", "x (1).txt", true},
      {"file", add, "", "same", "x.txt", false},
      {"file", overwrite, "", "same", "x.txt", false},
      {"file", stale, "", "same", "x.txt", false},
      {"file", add, strict, "same", "path/conflict/file", false},
      {"file", overwrite, strict, "same", "x.txt", false},
      {"file", add, "", "other", "path/conflict/file", false},
      {"file", add, renaming, "other", "x (1).txt", true},
      {"file", overwrite, "", "other", "x.txt", true},
      {"file", update, "", "other", "x.txt", true},
      {"file", stale, "", "other", "path/conflict/file", false},
      {"file", stale, renaming, "other", "x (conflicted copy).txt", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(fmt::format("{} of {} over {}{}", row.mode, row.bytes, row.there, row.flags));
    const TestService service;
    std::string rev = "015f00000000000000000000000ffff";
    const std::string there = row.there;
    if (there == "folder") service.rpc("files/create_folder_v2", R"({"path":"/t/x.txt"})");
    if (there == "file")
      rev = at(service.upload("files/upload", R"({"path":"/t/x.txt"})", "same").json(), "rev");
    std::string mode = row.mode;
    if (const auto place = mode.find("REV"); place != std::string::npos) mode.replace(place, 3, rev);
    if (const auto place = mode.find("OLD"); place != std::string::npos)
      mode.replace(place, 3, "015f00000000000000000000000fffe");
    const Answer answer = service.upload(
        "files/upload", fmt::format(R"({{"path":"/T/x.txt","mode":{}{}}})", mode, row.flags), row.bytes);
    EXPECT_EQ(answer.status == 200 ? at(answer.json(), "name") : answer.errorTags(), row.result)
        << answer.body;
    if (answer.status != 200) continue;
    EXPECT_EQ(answer.body.find(".tag"), std::string::npos) << "a concrete type has no tag";
    EXPECT_EQ(at(answer.json(), "rev") != rev, row.isNewRev);
    EXPECT_EQ(content(service, at(answer.json(), "path_lower")), row.bytes);
  }
}

TEST(Upload, ReplacingKeepsTheIdAndOldRevisionsReadable) {
  const TestService service;
  const auto first =
      service.upload("files/upload", R"({"path":"/a.txt","client_modified":"2020-01-02T03:04:05Z"})", "one")
          .json();
  const auto second = service.upload("files/upload", R"({"path":"/A.TXT","mode":"overwrite"})", "two").json();
  EXPECT_EQ(at(first, "id"), at(second, "id"));
  EXPECT_EQ(at(first, "client_modified"), "2020-01-02T03:04:05Z");
  EXPECT_EQ(at(second, "name"), "a.txt") << "the name keeps its case";
  EXPECT_EQ(at(first, "rev").size(), 31U);
  EXPECT_EQ(content(service, "rev:" + at(first, "rev")), "one");
  EXPECT_EQ(content(service, "rev:" + at(second, "rev")), "two");
}

TEST(Upload, ParentsAreMadeButNotInsideFiles) {
  const TestService service;
  EXPECT_EQ(service.upload("files/upload", R"({"path":"/P/q/r.txt"})", "x").status, 200);
  EXPECT_EQ(at(service.upload("files/upload", R"({"path":"/p/Q/s.txt"})", "x").json(), "path_display"),
            "/P/q/s.txt");
  EXPECT_EQ(service.upload("files/upload", R"({"path":"/p/q/r.txt/s"})", "x").errorTags(),
            "path/conflict/file_ancestor");
  EXPECT_EQ(service.upload("files/upload", R"({"path":"/p/desktop.ini"})", "x").errorTags(),
            "path/disallowed_name");
  EXPECT_EQ(service.upload("files/upload", R"({"path":"/p/"})", "x").errorTags(), "path/malformed_path");
}

TEST(Upload, RefusedBytesAreKeptInASession) {
  const TestService service;
  service.write("/a.txt", "there");
  const Answer refused = service.upload("files/upload", R"({"path":"/a.txt"})", "new bytes");
  EXPECT_EQ(at(refused.json(), "error.reason.conflict..tag"), "file");
  const std::string id = at(refused.json(), "error.upload_session_id");
  EXPECT_EQ(finish(service, id, 9, "/b.txt").status, 200);
  EXPECT_EQ(content(service, "/b.txt"), "new bytes");
}

TEST(Upload, QuotaIsCountedThroughAllChanges) {
  const TestService service;
  const auto used = [&] { return at(service.rpc("users/get_space_usage", "null").json(), "used"); };
  service.admin("POST", "settings", R"({"quota":1000})");
  EXPECT_EQ(service.upload("files/upload", R"({"path":"/a"})", std::string(600, 'a')).status, 200);
  EXPECT_EQ(service.upload("files/upload", R"({"path":"/b"})", std::string(600, 'b')).errorTags(),
            "path/insufficient_space");
  EXPECT_EQ(
      service.upload("files/upload", R"({"path":"/a","mode":"overwrite"})", std::string(900, 'c')).status,
      200);
  EXPECT_EQ(used(), "900");
  EXPECT_EQ(service.rpc("files/copy_v2", R"({"from_path":"/a","to_path":"/c"})").errorTags(),
            "insufficient_quota");
  service.rpc("files/move_v2", R"({"from_path":"/a","to_path":"/d/a"})");
  EXPECT_EQ(used(), "900");
  service.rpc("files/delete_v2", R"({"path":"/d"})");
  EXPECT_EQ(used(), "0");
  service.admin("POST", "settings", R"({"team_form":true,"account":"token-of-ann"})");
  const auto space = service.rpc("users/get_space_usage", "null").json();
  EXPECT_EQ(at(space, "allocation..tag") + " " + at(space, "allocation.allocated"), "team 1000");
}

TEST(Upload, BodiesLeaveTheDiskWithTheirLastRevision) {
  TestService service;
  const auto bodies = [&] {
    std::size_t count = 0;
    for (const auto& item :
         std::filesystem::recursive_directory_iterator(service.service().state().store.bodiesFolder())) {
      if (item.is_regular_file()) ++count;
    }
    return count;
  };
  const std::string bytes(100000, 'b');
  service.upload("files/upload", R"({"path":"/a"})", bytes);
  service.upload("files/upload", R"({"path":"/b"})", bytes);
  service.rpc("files/copy_v2", R"({"from_path":"/a","to_path":"/d/c"})");
  EXPECT_EQ(bodies(), 1U) << "equal bytes are kept once";
  for (const char* path : {"/a", "/b"})
    service.rpc("files/delete_v2", fmt::format(R"({{"path":"{}"}})", path));
  EXPECT_EQ(content(service, "/d/c"), bytes);
  service.rpc("files/delete_v2", R"({"path":"/d"})");
  EXPECT_EQ(bodies(), 1U) << "deleted files keep their revisions";
  service.admin("POST", "tree",
                fmt::format(R"({{"account":"{}","path":"/large","folders":0,"files":1,"size":{}}})", kToken,
                            (std::int64_t{256} << 20) + 1));
  service.rpc("files/delete_v2", R"({"path":"/large"})");
  EXPECT_EQ(bodies(), 0U) << "but only so many bytes of them";
  EXPECT_TRUE(std::filesystem::is_empty(service.service().state().store.incomingFolder()));
}

TEST(Sessions, SequentialPiecesFormTheFile) {
  const TestService service;
  const std::string id = session(service, "abc");
  EXPECT_EQ(append(service, id, 3, "").body, "null") << "an empty piece is fine";
  EXPECT_EQ(append(service, id, 3, "def").headers.at("content-type"), "application/json");
  const Answer repeated = append(service, id, 3, "def");
  EXPECT_EQ(at(repeated.json(), "error.correct_offset"), "6");
  const Answer early = finish(service, id, 3, "/s.txt");
  EXPECT_EQ(early.errorTags(), "lookup_failed/incorrect_offset");
  EXPECT_EQ(at(early.json(), "error.lookup_failed.correct_offset"), "6");
  const Answer done = finish(service, id, 6, "/s.txt", "ghi");
  EXPECT_EQ(at(done.json(), "content_hash"), hexEncode(contentHash("abcdefghi")));
  EXPECT_EQ(content(service, "/s.txt"), "abcdefghi");
  EXPECT_EQ(finish(service, id, 9, "/s.txt").errorTags(), "lookup_failed/not_found") << "used up";
}

TEST(Sessions, KnowTheirEnd) {
  const TestService service;
  EXPECT_EQ(append(service, "nonsense", 0, "x").errorTags(), "not_found");
  const std::string closed = session(service, "abc", R"({"close":true})");
  EXPECT_EQ(append(service, closed, 3, "x").errorTags(), "closed");
  EXPECT_EQ(finish(service, closed, 3, "/closed.txt").status, 200);
  const std::string old = session(service, "abc");
  EXPECT_EQ(
      service
          .upload("files/upload_session/append_v2",
                  fmt::format(R"({{"cursor":{{"session_id":"{}","offset":3}}}})", old), "x", kOtherToken)
          .errorTags(),
      "not_found")
      << "another account's";
  service.admin("POST", "settings", R"({"clock_offset_s":604799})");
  EXPECT_EQ(append(service, old, 3, "d").status, 200);
  service.admin("POST", "settings", R"({"clock_offset_s":604802})");
  EXPECT_EQ(append(service, old, 4, "e").errorTags(), "not_found");
}

TEST(Sessions, FailedCommitKeepsTheBytes) {
  const TestService service;
  service.write("/taken.txt", "there");
  const std::string id = session(service, "abc");
  EXPECT_EQ(finish(service, id, 3, "/taken.txt", "def").errorTags(), "path/conflict/file");
  EXPECT_EQ(finish(service, id, 3, "/free.txt", "def").errorTags(), "lookup_failed/incorrect_offset");
  EXPECT_EQ(finish(service, id, 6, "/free.txt").status, 200);
  EXPECT_EQ(content(service, "/free.txt"), "abcdef");
}

TEST(Sessions, InterruptedPieceHasNoEffect) {
  const TestService service;
  const std::string id = session(service, std::string(300000, 'a'));
  service.admin("POST", "faults",
                R"([{"route":"files/upload_session/append_v2","cut_request_after":400000}])");
  EXPECT_NE(append(service, id, 300000, std::string(800000, 'x')).curlResult, 0);
  EXPECT_EQ(append(service, id, 300000, std::string(5, 'b')).status, 200);
  EXPECT_EQ(finish(service, id, 300005, "/f").status, 200);
  EXPECT_EQ(content(service, "/f"), std::string(300000, 'a') + "bbbbb");
}

TEST(Sessions, WrongHashOfAPieceChangesNothing) {
  const TestService service;
  const std::string id = session(service, "abc");
  const std::string wrong(64, '0');
  const std::string argument =
      fmt::format(R"({{"cursor":{{"session_id":"{}","offset":3}},"content_hash":"{}"}})", id, wrong);
  EXPECT_EQ(service.upload("files/upload_session/append_v2", argument, "def").errorTags(),
            "content_hash_mismatch");
  EXPECT_EQ(finish(service, id, 3, "/f", "xyz").status, 200);
  EXPECT_EQ(content(service, "/f"), "abcxyz");
}

TEST(Sessions, ConcurrentPiecesComeInAnyOrder) {
  const TestService service;
  const std::string concurrent = R"({"session_type":"concurrent"})";
  EXPECT_EQ(service.upload("files/upload_session/start", concurrent, "x").errorTags(),
            "concurrent_session_data_not_allowed");
  EXPECT_EQ(service.upload("files/upload_session/start", R"({"session_type":"concurrent","close":true})", "")
                .errorTags(),
            "concurrent_session_close_not_allowed");
  const std::string id = session(service, "", concurrent);
  EXPECT_EQ(append(service, id, 1, std::string(kBlock, 'x')).errorTags(),
            "concurrent_session_invalid_offset");
  EXPECT_EQ(append(service, id, 0, "short").errorTags(), "concurrent_session_invalid_data_size");
  std::vector<std::future<Answer>> pieces;
  pieces.push_back(std::async(std::launch::async,
                              [&] { return append(service, id, 2 * kBlock, std::string(1000, 'c'), true); }));
  pieces.push_back(
      std::async(std::launch::async, [&] { return append(service, id, kBlock, std::string(kBlock, 'b')); }));
  for (auto& piece : pieces) EXPECT_EQ(piece.get().status, 200);
  EXPECT_EQ(finish(service, id, 2 * kBlock + 1000, "/big").errorTags(), "concurrent_session_missing_data");
  EXPECT_EQ(append(service, id, 0, std::string(kBlock, 'a')).status, 200);
  const Answer done = finish(service, id, 2 * kBlock + 1000, "/big");
  ASSERT_EQ(done.status, 200) << done.body;
  const std::string whole = std::string(kBlock, 'a') + std::string(kBlock, 'b') + std::string(1000, 'c');
  EXPECT_EQ(at(done.json(), "content_hash"), hexEncode(contentHash(whole)));
  EXPECT_TRUE(content(service, "/big") == whole);
}

TEST(Sessions, BatchAnswersEachEntry) {
  const TestService service;
  const std::string good = session(service, "abc", R"({"close":true})");
  const std::string open = session(service, "abc");
  const auto entry = [](const std::string& id, const char* path) {
    return fmt::format(R"({{"cursor":{{"session_id":"{}","offset":3}},"commit":{{"path":"{}"}}}})", id, path);
  };
  const Answer answer = service.rpc(
      "files/upload_session/finish_batch_v2",
      "{\"entries\":[" + entry(good, "/a") + "," + entry(open, "/b") + "," + entry("none", "/c") + "]}");
  const auto result = answer.json();
  EXPECT_EQ(at(result, "entries.0..tag"), "success") << answer.body;
  EXPECT_EQ(at(result, "entries.0.name"), "a");
  EXPECT_EQ(at(result, "entries.1.failure.lookup_failed..tag"), "not_closed");
  EXPECT_EQ(at(result, "entries.2.failure.lookup_failed..tag"), "not_found");
}

TEST(Download, HasTheServicesHeaders) {
  const TestService service;
  const auto meta = service.upload("files/upload", R"({"path":"/\u00e4.bin"})", "0123456789").json();
  const Answer answer = service.download(R"({"path":"/\u00c4.bin"})");
  EXPECT_EQ(answer.body, "0123456789");
  const std::map<std::string, std::string> expected{{"content-type", "application/octet-stream"},
                                                    {"content-length", "10"},
                                                    {"original-content-length", "10"},
                                                    {"accept-ranges", "bytes"},
                                                    {"cache-control", "no-cache"},
                                                    {"pragma", "no-cache"},
                                                    {"etag", "\"" + at(meta, "rev") + "\""}};
  for (const auto& [name, value] : expected) EXPECT_EQ(answer.headers.at(name), value) << name;
  const std::string result = answer.headers.at("dropbox-api-result");
  EXPECT_NE(result.find("\\u00e4.bin"), std::string::npos) << "the header is ASCII";
  EXPECT_EQ(boost::json::parse(result), meta);
  EXPECT_EQ(service.download(R"({"path":"/none"})").headers.count("dropbox-api-result"), 0U);
  service.rpc("files/create_folder_v2", R"({"path":"/folder"})");
  EXPECT_EQ(service.download(R"({"path":"/folder"})").errorTags(), "path/not_file");
}

TEST(Download, RangesAndConditions) {
  const TestService service;
  const std::string rev = at(service.upload("files/upload", R"({"path":"/f"})", "0123456789").json(), "rev");
  struct Row {
    std::string header;
    long status;
    const char* body;
    const char* range;
  };
  const std::string whole = "0123456789";
  const Row rows[] = {
      {"Range: bytes=2-4", 206, "234", "bytes 2-4/10"},
      {"Range: bytes=7-", 206, "789", "bytes 7-9/10"},
      {"Range: bytes=-3", 206, "789", "bytes 7-9/10"},
      {"Range: bytes=5-99", 206, "56789", "bytes 5-9/10"},
      {"Range: bytes=0-", 206, whole.c_str(), "bytes 0-9/10"},
      {"Range: bytes=10-", 416, nullptr, "bytes */10"},
      {"Range: bytes=-0", 416, nullptr, "bytes */10"},
      {"Range: bytes=0-1,3-4", 200, whole.c_str(), nullptr},
      {"Range: bytes=4-2", 200, whole.c_str(), nullptr},
      {"Range: lines=1-2", 200, whole.c_str(), nullptr},
      {"Range: bytes=a-b", 200, whole.c_str(), nullptr},
      {"If-None-Match: \"" + rev + "\"", 304, "", nullptr},
      {"If-None-Match: \"0\"", 200, whole.c_str(), nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.header);
    const Answer answer = service.download(R"({"path":"/f"})", {row.header});
    EXPECT_EQ(answer.status, row.status);
    EXPECT_TRUE(!row.body || answer.body == row.body) << answer.body;
    const auto range = answer.headers.find("content-range");
    EXPECT_TRUE(!row.range || (range != answer.headers.end() && range->second == row.range));
  }
}

TEST(Download, SyntheticFilesReadTheSameFromAnyOffset) {
  const TestService service;
  service.admin(
      "POST", "tree",
      fmt::format(R"({{"account":"{}","path":"/big","folders":2,"files":3,"size":300001}})", kToken));
  const auto meta = service.rpc("files/get_metadata", R"({"path":"/big/folder 0002/file 00003.txt"})").json();
  const std::string whole = content(service, "/big/folder 0002/file 00003.txt");
  EXPECT_EQ(whole.size(), 300001U);
  EXPECT_EQ(hexEncode(contentHash(whole)), at(meta, "content_hash"));
  EXPECT_NE(whole, content(service, "/big/folder 0002/file 00002.txt"));
  EXPECT_EQ(
      service.download(R"({"path":"/big/folder 0002/file 00003.txt"})", {"Range: bytes=262139-262160"}).body,
      whole.substr(262139, 22));
}

TEST(Thumbnail, IsAPictureThatFits) {
  ServiceOptions options;
  options.seedSample = true;
  options.accounts = {{"Sample User", "sample.user@example.com", kToken}};
  const TestService service(options);
  const auto get = [&](const std::string& path, const std::string& more) {
    return service.send(
        {.target = "/2/files/get_thumbnail_v2",
         .headers = {
             std::string("Authorization: Bearer ") + kToken, "Content-Type:",
             fmt::format(R"(Dropbox-API-Arg: {{"resource":{{".tag":"path","path":"{}"}}{}}})", path, more)}});
  };
  const Answer jpeg = get("/photos/2023/img_0042.jpg", R"(,"size":"w1024h768")");
  ASSERT_EQ(jpeg.status, 200) << jpeg.body;
  EXPECT_EQ(jpeg.body.substr(0, 3), "\xFF\xD8\xFF");
  EXPECT_EQ(at(boost::json::parse(jpeg.headers.at("dropbox-api-result")), "file_metadata.name"),
            "IMG_0042.JPG");
  const Answer png = get("/photos/screenshot 1.png", R"(,"format":"png","size":"w2048h1536")");
  ASSERT_EQ(png.status, 200) << png.body;
  EXPECT_EQ(png.body.substr(16, 8), std::string("\x00\x00\x03\x20\x00\x00\x01\xF4", 8))
      << "800x500, not enlarged";
  EXPECT_EQ(get("/getting started.txt", "").errorTags(), "unsupported_extension");
  EXPECT_EQ(get("/none.png", "").errorTags(), "path/not_found");
  service.upload("files/upload", R"({"path":"/broken.png"})", "\x89PNG\r\n\x1A\nnot really");
  EXPECT_EQ(get("/broken.png", "").errorTags(), "unsupported_image");
}

TEST(Contention, RefusesEverySecondOfTheCommitsThatMeet) {
  const TestService service;
  service.admin("POST", "settings", R"({"write_contention":true,"commit_delay_ms":300})");
  std::vector<std::future<Answer>> calls;
  for (int i = 0; i < 6; ++i) {
    calls.push_back(std::async(std::launch::async, [&, i] {
      return service.rpc("files/create_folder_v2", fmt::format(R"({{"path":"/f{}"}})", i));
    }));
  }
  int refused = 0;
  for (auto& call : calls) {
    const Answer answer = call.get();
    if (answer.status == 200) continue;
    ++refused;
    EXPECT_EQ(answer.status, 429);
    EXPECT_EQ(at(answer.json(), "error.reason..tag"), "too_many_write_operations");
    EXPECT_EQ(answer.headers.at("retry-after"), "1");
  }
  EXPECT_GE(refused, 1);
  EXPECT_LE(refused, 3);
}

}  // namespace
}  // namespace kzv::standin::testing
