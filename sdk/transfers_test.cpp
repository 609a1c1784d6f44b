#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "sdk/DBError.h"
#include "sdk/testing/ClientFixture.h"
#include "sdk/wire/ContentHash.h"
#include "sdk/wire/LocalFile.h"

namespace kzv::sdk {

namespace {

std::string contentHash(const std::string& bytes) {
  ContentHash hash;
  hash.update(bytes);
  return hash.finish();
}

std::string storedJson(const std::string& path, const std::string& content) {
  std::string json = fileJson(path, "015f00aa11bb2cc", static_cast<long>(content.size()));
  json.erase(1, std::string(R"(".tag":"file",)").size());  // these answers say what they are by their place
  json.insert(json.size() - 1, R"(,"content_hash":")" + contentHash(content) + "\"");
  return json;
}

std::string readAll(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

TEST(ContentHash, AgreesWithThePublishedValues) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"},
      {std::string(4194304, '\0'), "c7e946d101855255d919ef0c70718633adf77d3dfb3adeeecf5d0cb4e951be58"},
      {std::string(4194305, '\0'), "14a4d47f23a30177885d9820122f17d2d3a55fe63f7f5c27b95f689e0b2accd6"}};
  for (const auto& [bytes, hash] : cases) {
    SCOPED_TRACE(bytes.size());
    EXPECT_EQ(contentHash(bytes), hash);
    ContentHash inPieces;
    for (std::size_t at = 0; at < bytes.size(); at += 1'000'003) inPieces.update(bytes.substr(at, 1'000'003));
    EXPECT_EQ(ContentHash(inPieces).finish(), hash) << "in pieces";
    EXPECT_EQ(inPieces.finish(), hash) << "after a copy has ended";
  }
}

class Transfers : public ClientFixture {
 protected:
  Transfers() { std::filesystem::create_directory(files()); }
  std::string files() const { return home.path() + "/files"; }
  std::string local(const std::string& name) const { return files() + "/" + name; }
  long filesThere() const { return std::distance(std::filesystem::directory_iterator(files()), {}); }
  std::string localFile(const std::string& content) const {
    std::ofstream(local("local"), std::ios::binary) << content;
    return local("local");
  }
  static ScriptedReply download(const std::string& content, const std::string& claimed) {
    ScriptedReply reply{200, content, {"Content-Type: application/octet-stream"}};
    reply.headers.push_back("Dropbox-API-Result: " + storedJson("/a/P.jpg", claimed));
    return reply;
  }
  std::string loadFile() {
    return outcome([&](DBRestClient& own) { own.loadFile("/a/P.jpg", local("target")); });
  }
};

TEST_F(Transfers, DownloadAppearsWholeOrNotAtAll) {
  const std::string content = "the content of a file", other = "the content of a FILE";
  ScriptedReply cut = download(content, content);
  cut.cutAfter = 5;
  const ScriptedReply nothing{200, content, {"Dropbox-API-Result: {\"size\":21}"}};
  struct Case {
    const char* name;
    ScriptedReply reply;
    std::string outcome;
    std::string found;
  };
  const std::string done = "file " + local("target");
  const Case cases[] = {
      {"as promised", download(content, content), done, content},
      {"empty", download("", ""), done, ""},
      {"without a description", {200, content, {}}, "error 101", "old"},
      {"empty, without a description", {200, "", {}}, "error 101", "old"},
      {"with a description of something else", nothing, "error 101", "old"},
      {"other bytes than promised", download(other, content), "error 101", "old"},
      {"fewer bytes than promised", download("the", content), "error 101", "old"},
      {"cut in the middle", cut, "error -18", "old"},
      {"exists only online", errorReply(409, {"unsupported_file"}), "error 409", "old"},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest&) { return current.load()->reply; });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::ofstream(local("target")) << "old";
    current = &c;
    EXPECT_EQ(loadFile(), c.outcome);
    EXPECT_EQ(readAll(local("target")), c.found);
    session->waitForBackgroundWork(1);
    // The temporary file of a failure goes with its request, a moment after the callback.
    for (int i = 0; i < 1000 && filesThere() > 1; ++i) callbacks.run([] {});
    EXPECT_EQ(filesThere(), 1);
  }
  EXPECT_EQ(server->requests().front().headers.at("dropbox-api-arg"), R"({"path":"/a/P.jpg"})");
}

TEST_F(Transfers, DamagedDownloadIsMadeAgainSomeTimes) {
  const std::string content = "the content of a file", other = "the content of a FILE";
  struct Case {
    const char* name;
    int damagedTimes;
    std::string damaged;
    std::string outcome;
    std::string found;
  };
  const std::string done = "file " + local("target");
  const Case cases[] = {{"once", 1, other, done, content},
                        {"four times", 4, other, done, content},
                        {"shorter", 1, "the", done, content},
                        {"longer", 1, content + "s", done, content},
                        {"every time", 100, other, "error 101", "old"}};
  std::atomic<const Case*> current{nullptr};
  std::atomic<int> times{0};
  const auto serving = serve([&](const ScriptedRequest&) {
    return download(times++ < current.load()->damagedTimes ? current.load()->damaged : content, content);
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::ofstream(local("target")) << "old";
    current = &c;
    times = 0;
    EXPECT_EQ(loadFile(), c.outcome);
    EXPECT_EQ(readAll(local("target")), c.found);
    EXPECT_EQ(times, std::min(c.damagedTimes + 1, 5));
  }
}

TEST_F(Transfers, BodyEndsAtTheSizeThatWasAnnounced) {
  ScriptedReply endless = download(std::string(64 * 1024, 'x'), "12345");
  endless.isEndless = true;
  ScriptedReply preview = endless;
  preview.headers = {R"(Dropbox-API-Result: {"file_metadata":)" + storedJson("/a/P.jpg", "12345") + "}"};
  const auto serving = serve([&](const ScriptedRequest& request) {
    return request.route == "/2/files/download" ? endless : preview;
  });
  EXPECT_EQ(loadFile(), "error 101");
  EXPECT_EQ(outcome([&](DBRestClient& own) { own.loadThumbnail("/a/P.jpg", "xl", local("t")); }),
            "error 101");
  EXPECT_LT(server->endlessBytes(), 128U * 1024 * 1024) << "more than what waits in the sockets";
}

TEST_F(Transfers, DownloadTellsWhichVersionCameAndTakesItsDate) {
  const std::string rev = "015f00aa11bb2cc";
  const auto serving = serve([&](const ScriptedRequest&) { return download("abc", "abc"); });
  const auto load = [&](const std::string& path) {
    return outcome([&](DBRestClient& own) { own.loadFile(path, local("t"), LocalAccess::ownerOnly); });
  };
  for (const std::string& path : {std::string("/a/P.jpg"), "rev:" + rev}) {
    EXPECT_EQ(load(path), "file " + local("t"));
    EXPECT_EQ(delegate.lastMetadata()->rev(), rev);
    EXPECT_EQ(delegate.lastMetadata()->path(), "/a/P.jpg");
    struct stat status {};
    ASSERT_EQ(::stat(local("t").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(NSDate::Time(std::chrono::seconds(status.st_mtim.tv_sec)),
              delegate.lastMetadata()->lastModifiedDate());
  }
  EXPECT_EQ(load("rev:0123456789"), "error 101") << "another version than was asked for";
  EXPECT_EQ(load("rev:../etc"), "error 400");
}

TEST_F(Transfers, CutDownloadIsMadeAgainFromTheStart) {
  const std::string content(3'000'000, 'x');
  std::atomic<int> times{0};
  const auto serving = serve([&](const ScriptedRequest&) {
    ScriptedReply reply = download(content, content);
    if (times++ == 0) reply.cutAfter = 2'000'000;
    return reply;
  });
  EXPECT_EQ(loadFile(), "file " + local("target"));
  EXPECT_EQ(readAll(local("target")), content);
  const auto fractions = delegate.fractions();
  ASSERT_FALSE(fractions.empty());
  EXPECT_EQ(fractions.back(), 1.0);
}

TEST_F(Transfers, StoppedDownloadCallsNobodyAndLeavesNothing) {
  const std::string content(3'000'000, 'x');
  const auto serving = serve([&](const ScriptedRequest&) { return download(content, content); });
  delegate.stopAtFirstProgress();
  EXPECT_EQ(loadFile(), "stopped");
  client.reset();
  for (int i = 0; i < 100'000 && filesThere() > 0; ++i) callbacks.run([] {});
  EXPECT_EQ(filesThere(), 0);
  EXPECT_EQ(delegate.notes().size(), 1U);
  // A stop while the whole file is about to get its name, or just has it.
  for (const bool isEarly : {true, false}) {
    const auto announced = [](std::string_view, NSErrorRef*) { return AnnouncedBody{3, true}; };
    FileSink sink(local("late"), LocalAccess::byUmask, nullptr, announced);
    ASSERT_TRUE(sink.begin("", 3) && sink.write("abc"));
    if (isEarly) sink.withdraw();
    EXPECT_EQ(sink.keep(std::nullopt, nullptr), !isEarly);
    if (!isEarly) sink.withdraw();
    EXPECT_FALSE(std::filesystem::exists(local("late")));
  }
  std::ofstream(local("late")) << "old";
  FileSink sink(local("late"), LocalAccess::byUmask, nullptr, [](std::string_view, NSErrorRef*) {
    return AnnouncedBody{3, true};
  });
  ASSERT_TRUE(sink.begin("", 3) && sink.write("abc") && sink.keep(std::nullopt, nullptr));
  sink.withdraw();
  EXPECT_EQ(readAll(local("late")), "abc") << "the old one has gone, so the new one stays";
}

TEST_F(Transfers, UnusableTargetsAreErrors) {
  const auto serving = serve([&](const ScriptedRequest&) { return download("abc", "abc"); });
  const auto into = [&](const std::string& target) {
    return outcome([&](DBRestClient& own) { own.loadFile("/a/P.jpg", target); });
  };
  EXPECT_EQ(into("relative"), "error 103");
  EXPECT_EQ(into(std::string("/tmp/a\0b", 8)), "error 103");
  EXPECT_EQ(into(local("no folder/target")), "error 2");
  std::filesystem::create_directory(local("folder"));
  EXPECT_EQ(into(local("folder")), "error 21");
}

TEST_F(Transfers, ThumbnailIsAskedForBySizeName) {
  const auto serving = serve([&](const ScriptedRequest& request) {
    EXPECT_EQ(
        request.headers.at("dropbox-api-arg"),
        R"({"resource":{".tag":"path","path":"/\u00e9.jpg"},"format":"jpeg","size":"w1024h768","mode":"strict"})");
    ScriptedReply reply{200, "picture", {}};
    reply.headers.push_back(R"(Dropbox-API-Result: {"file_metadata":)" + storedJson("/x.jpg", "abc") + "}");
    return reply;
  });
  EXPECT_EQ(outcome([&](DBRestClient& own) { own.loadThumbnail("/\xC3\xA9.jpg", "xl", local("t")); }),
            "thumbnail " + local("t"));
  EXPECT_EQ(readAll(local("t")), "picture");
  EXPECT_EQ(delegate.lastMetadata()->path(), "/x.jpg");
  EXPECT_EQ(outcome([&](DBRestClient& own) { own.loadThumbnail("/a.jpg", "huge", local("t")); }),
            "error 400");
}

TEST_F(Transfers, UploadSendsTheFileAndTakesTheNameThatTheServiceChose) {
  const std::string content(2'500'000, 'u');
  struct Case {
    const char* name;
    std::optional<std::string> rev;
    ScriptedReply reply;
    const char* mode;
    const char* outcome;
    std::size_t deletions = 0;  // of what was stored wrong
    std::size_t uploads = 1;
    bool isRepaired = false;  // the second upload is stored as it was sent
  };
  const char* const add = R"("mode":"add")";
  const char* const update = R"("mode":{".tag":"update","update":"0123456789"})";
  const Case cases[] = {
      {"new", {}, jsonReply(storedJson("/A/n.txt", content)), add, "uploaded /A/n.txt as /A/n.txt"},
      {"beside another", "0123456789", jsonReply(storedJson("/a/n (1).txt", content)), update,
       "uploaded /A/n.txt as /a/n (1).txt"},
      {"damaged once",
       {},
       jsonReply(storedJson("/A/n.txt", "other")),
       add,
       "uploaded /A/n.txt as /A/n.txt",
       0,
       2,
       true},
      {"refused as damaged once",
       {},
       errorReply(409, {"content_hash_mismatch"}),
       add,
       "uploaded /A/n.txt as /A/n.txt",
       0,
       2,
       true},
      {"damaged on the way", {}, jsonReply(storedJson("/A/n.txt", "other")), add, "error 101", 1, 5},
      {"damaged over another version", "0123456789", jsonReply(storedJson("/A/N.txt", "other")), update,
       "error 101", 0, 5},
      {"damaged beside another", "0123456789", jsonReply(storedJson("/A/n (1).txt", "other")), update,
       "error 101", 1, 5},
  };
  std::atomic<const Case*> current{nullptr};
  std::atomic<std::size_t> uploads{0};
  const auto serving = serve([&](const ScriptedRequest&) {
    const Case& c = *current.load();
    return ++uploads > 1 && c.isRepaired ? jsonReply(storedJson("/A/n.txt", content)) : c.reply;
  });
  const std::string path = localFile(content);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    uploads = 0;
    const std::size_t before = server->requests().size();
    EXPECT_EQ(outcome([&](DBRestClient& own) { own.uploadFile("n.txt", "/A", c.rev, path); }), c.outcome);
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), before + c.uploads + c.deletions);
    if (c.uploads > 1) {
      const std::string& again = requests[before + 1].headers.at("dropbox-api-arg");
      EXPECT_NE(again.find("\"content_hash\":\"" + contentHash(content)), std::string::npos);
      const bool isStored = c.reply.status == 200;
      EXPECT_EQ(again.find(R"("update":"015f00aa11bb2cc")") != std::string::npos, isStored)
          << "what was stored damaged is replaced";
    }
    EXPECT_TRUE(c.deletions == 0 || requests.back().body.find(R"("parent_rev":")") != std::string::npos);
    const ScriptedRequest& request = requests[before];
    EXPECT_TRUE(request.body == content);
    EXPECT_EQ(request.headers.at("content-type"), "application/octet-stream");
    EXPECT_NE(request.headers.at("dropbox-api-arg").find(c.mode), std::string::npos);
    EXPECT_NE(request.headers.at("dropbox-api-arg").find(R"("path":"/A/n.txt")"), std::string::npos);
  }
  EXPECT_EQ(delegate.fractions().back(), 1.0);
  const auto upload = [&](const std::string& from) {
    return outcome([&](DBRestClient& own) { own.uploadFile("n", "/A", std::nullopt, from); });
  };
  EXPECT_EQ(upload(local("none")), "error 2");
  EXPECT_EQ(upload(files()), "error 21");
}

TEST_F(Transfers, FileThatChangesWhileItIsReadIsNeverSentWhole) {
  const std::string content(1'000'000, 'u');
  struct Case {
    const char* name;
    std::function<void(const std::string& path)> change;
    bool isWhole;
  };
  const auto rewrite = [](const std::string& path) {
    std::fstream(path, std::ios::binary | std::ios::in | std::ios::out) << "U";
    // The clock of a file system stands still for some milliseconds.
    std::filesystem::last_write_time(path,
                                     std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  };
  const Case cases[] = {
      {"it stays", [](const std::string&) {}, true},
      {"it shrinks", [](const std::string& path) { std::filesystem::resize_file(path, 600'000); }, false},
      {"it grows", [](const std::string& path) { std::filesystem::resize_file(path, 1'000'001); }, false},
      {"rewritten in place", rewrite, false},
      {"another file takes its name",
       [](const std::string& path) {
         std::ofstream(path + ".new") << "other";
         std::filesystem::rename(path + ".new", path);
       },
       false},  // its own attributes change with it: it has no name any more
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NSErrorRef error;
    const auto source = FileSource::open(localFile(content), &error);
    ASSERT_TRUE(source);
    std::string buffer(500'000, '\0');
    EXPECT_EQ(source->read(buffer.data(), buffer.size()), 500'000);
    c.change(local("local"));
    std::ptrdiff_t count = 1;
    while (count > 0) count = source->read(buffer.data(), buffer.size());
    EXPECT_EQ(count == 0 && source->isSent(), c.isWhole);
    EXPECT_EQ(source->failure() ? source->failure()->code() : 0, c.isWhole ? 0 : DBErrorFileChanged);
  }
}

class ChunkedUpload : public Transfers {
 protected:
  static constexpr const char* startRoute = "/2/files/upload_session/start";
  static constexpr const char* appendRoute = "/2/files/upload_session/append_v2";
  static constexpr const char* finishRoute = "/2/files/upload_session/finish";
  const std::string content = std::string(2'000'000, 'a') + std::string(500'000, 'b');
  std::string chunk(const std::optional<std::string>& uploadId, std::uint64_t offset) {
    return outcome([&](DBRestClient& own) { own.uploadFileChunk(uploadId, offset, local("local")); });
  }
  std::string commit(const std::string& uploadId) {
    return outcome([&](DBRestClient& own) { own.uploadFileFromUploadId("n", "/A", std::nullopt, uploadId); });
  }
  /// " id offset" of the last error, or nothing.
  std::string resumption() {
    const NSErrorRef error = delegate.lastError();
    const std::string* uploadId = textOf(error->detail(DBErrorUploadIdKey));
    const auto offset = as<NSNumber>(error->detail(DBErrorOffsetKey));
    return uploadId && offset ? *uploadId + " " + std::to_string(offset->int64Value()) : "";
  }
  ScriptedReply finished() const { return jsonReply(storedJson("/A/n", content)); }
};

TEST_F(ChunkedUpload, GoesThroughASession) {
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == startRoute) return jsonReply(R"({"session_id":"S"})");
    if (request.route == appendRoute) return jsonReply("null");
    EXPECT_NE(request.headers.at("dropbox-api-arg").find(R"({"session_id":"S","offset":2500000})"),
              std::string::npos);
    return finished();
  });
  localFile(content.substr(0, 2'000'000));
  EXPECT_EQ(chunk(std::nullopt, 0), "chunk S 2000000");
  localFile(content);
  EXPECT_EQ(chunk("S", 2'000'000), "chunk S 2500000");
  EXPECT_EQ(server->requests().back().body, content.substr(2'000'000));
  EXPECT_EQ(chunk("S", 2'500'000), "chunk S 2500000") << "nothing is left, and no request is made for it";
  EXPECT_EQ(server->requests().size(), 2U);
  EXPECT_EQ(commit("S"), "committed S /A/n as /A/n");
}

TEST_F(ChunkedUpload, FailureTellsFromWhereToGoOnOnlyWhereThatIsPossible) {
  struct Case {
    const char* name;
    ScriptedReply reply;
    bool first;
    const char* resumption;
  };
  const ScriptedReply wrongOffset =
      jsonReply(R"({"error":{".tag":"incorrect_offset","correct_offset":4194304}})", 409);
  const Case cases[] = {
      {"another offset", wrongOffset, false, "S 4194304"},
      {"cut", {.cutBeforeAnswer = true}, false, "S 2000000"},
      {"told to wait", {429, "", {"Retry-After: 1"}}, false, "S 2000000"},
      {"service in trouble", {503, ""}, false, "S 2000000"},
      {"session closed", errorReply(409, {"closed"}), false, ""},
      {"start in trouble", {503, ""}, true, ""},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest&) { return current.load()->reply; });
  localFile(content);
  std::size_t requests = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    EXPECT_TRUE(
        chunk(c.first ? std::nullopt : std::optional<std::string>("S"), 2'000'000).starts_with("error"));
    EXPECT_EQ(resumption(), c.resumption);
    const std::size_t now = server->requests().size();
    if (!c.reply.cutBeforeAnswer) {
      EXPECT_EQ(now, requests + 1) << "a chunk is not repeated";
    }
    requests = now;
  }
}

TEST_F(ChunkedUpload, HashSurvivesALostAnswer) {
  std::atomic<int> appends{0};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == startRoute) return jsonReply(R"({"session_id":"S"})");
    if (request.route == finishRoute) return jsonReply(storedJson("/A/n", "not what was sent"));
    return appends++ == 0
               ? ScriptedReply{503, ""}
               : jsonReply(R"({"error":{".tag":"incorrect_offset","correct_offset":2500000}})", 409);
  });
  localFile(content.substr(0, 2'000'000));
  EXPECT_EQ(chunk(std::nullopt, 0), "chunk S 2000000");
  localFile(content);
  EXPECT_EQ(chunk("S", 2'000'000), "error 503");
  EXPECT_EQ(chunk("S", 2'000'000), "error 409");
  EXPECT_EQ(resumption(), "S 2500000");
  EXPECT_EQ(chunk("S", 2'500'000), "chunk S 2500000");
  EXPECT_EQ(commit("S"), "error 101") << "the hash of all that was sent is still known";
}

TEST_F(ChunkedUpload, LostAnswerToTheCommitIsNoFailureWhenTheFileIsThere) {
  std::atomic<bool> isThere{true};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == startRoute) return jsonReply(R"({"session_id":"S"})");
    if (request.route == finishRoute) return ScriptedReply{.cutBeforeAnswer = true};
    std::string json = storedJson("/A/n", isThere ? content : "an older version");
    return jsonReply(json.insert(1, R"(".tag":"file",)"));
  });
  localFile(content);
  EXPECT_EQ(chunk(std::nullopt, 0), "chunk S 2500000");
  EXPECT_EQ(commit("S"), "committed S /A/n as /A/n");
  isThere = false;
  EXPECT_EQ(chunk(std::nullopt, 0), "chunk S 2500000");
  EXPECT_EQ(commit("S"), "error -52");
}

TEST_F(ChunkedUpload, TroubleAtStartOrCommitCostsNothingThatWasSent) {
  struct Case {
    const char* name;
    const char* route;
    ScriptedReply reply;
  };
  const Case cases[] = {
      {"the start is told to wait", startRoute, {429, "", {"Retry-After: 0"}}},
      {"the commit is told to wait", finishRoute, {503, "", {"Retry-After: 0"}}},
      {"the commit fails", finishRoute, {500, ""}},
      {"another change is in progress", finishRoute, errorReply(409, {"too_many_write_operations"})},
  };
  std::atomic<const Case*> current{nullptr};
  std::atomic<bool> isFirst{true};
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.route == current.load()->route && isFirst.exchange(false)) return current.load()->reply;
    if (request.route == startRoute) return jsonReply(R"({"session_id":"S"})");
    const auto& argument = request.headers.at("dropbox-api-arg");
    EXPECT_NE(argument.find(R"("client_modified":"2001-02-03T04:05:06Z")"), std::string::npos) << argument;
    return finished();
  });
  localFile(content);
  const timespec times[2]{{981'173'106, 5}, {981'173'106, 5}};
  ASSERT_EQ(::utimensat(AT_FDCWD, local("local").c_str(), times, 0), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    isFirst = true;
    EXPECT_EQ(chunk(std::nullopt, 0), "chunk S 2500000");
    EXPECT_EQ(commit("S"), "committed S /A/n as /A/n");
    EXPECT_FALSE(isFirst);
  }
}

TEST_F(ChunkedUpload, UploadBegunElsewhereIsCommittedAtTheOffsetThatTheServiceKnows) {
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (request.headers.at("dropbox-api-arg").find("\"offset\":77") != std::string::npos) return finished();
    return jsonReply(
        R"({"error":{".tag":"lookup_failed","lookup_failed":{".tag":"incorrect_offset","correct_offset":77}}})",
        409);
  });
  EXPECT_EQ(commit("foreign"), "committed foreign /A/n as /A/n");
}

class TreeChanges : public ClientFixture {};

/// A text of the request's argument.
std::string field(const ScriptedRequest& request, const std::string& key) {
  const auto begin = request.body.find("\"" + key + "\":\"") + key.size() + 4;
  return request.body.substr(begin, request.body.find('"', begin) - begin);
}

TEST_F(TreeChanges, EndWithTheServicesRecord) {
  const auto serving = serve([](const ScriptedRequest& request) {
    if (request.route == "/2/files/create_folder_v2")
      return jsonReply(R"({"metadata":{"name":"N","path_lower":"/a/n","path_display":"/a/N","id":"id:x"}})");
    if (request.body.find("gone") != std::string::npos) return errorReply(409, {"path_lookup", "not_found"});
    if (request.route == "/2/files/delete_v2") return jsonReply(R"({"metadata":)" + fileJson("/A/f") + "}");
    return jsonReply(R"({"metadata":)" + fileJson("/b/G") + "}");
  });
  EXPECT_EQ(outcome([](DBRestClient& own) { own.createFolder("/A/N"); }), "created /a/N");
  EXPECT_TRUE(delegate.lastMetadata()->isDirectory());
  EXPECT_EQ(outcome([](DBRestClient& own) { own.deletePath("/A/f/"); }), "deleted /A/f/");
  EXPECT_EQ(outcome([](DBRestClient& own) { own.deletePath("/gone"); }), "error 404");
  EXPECT_EQ(outcome([](DBRestClient& own) { own.moveFrom("/A/f", "/B/G"); }), "moved /A/f to /b/G");
  for (const auto& root : {"/", "//", ""}) {
    EXPECT_EQ(outcome([&](DBRestClient& own) { own.createFolder(root); }), "error 400");
    EXPECT_EQ(outcome([&](DBRestClient& own) { own.deletePath(root); }), "error 400")
        << "never the whole account";
    EXPECT_EQ(outcome([&](DBRestClient& own) { own.moveFrom("/a", root); }), "error 400");
  }
}

// The service does what it is asked and then breaks the connection instead of answering. Each row is tried on
// a fresh connection, and on a kept one, where libcurl sends the request a second time.
TEST_F(TreeChanges, ChangeWhoseAnswerWasLostIsNotReportedAsFailed) {
  std::mutex mutex;
  std::set<std::string> paths;
  const auto serving = serve([&](const ScriptedRequest& request) {
    const std::lock_guard lock(mutex);
    const auto value = [&](const char* key) { return field(request, key); };
    if (request.route == "/2/files/get_metadata") {
      return paths.count(value("path")) ? jsonReply(folderJson(value("path")))
                                        : errorReply(409, {"path", "not_found"});
    }
    if (request.route == "/2/files/list_folder") return jsonReply(pageJson(""));
    bool done = false;
    if (request.route == "/2/files/create_folder_v2") done = paths.insert(value("path")).second;
    if (request.route == "/2/files/delete_v2") done = paths.erase(value("path")) > 0;
    if (request.route == "/2/files/move_v2") {
      done = paths.erase(value("from_path")) > 0;
      if (done) paths.insert(value("to_path"));
    }
    if (done) return ScriptedReply{.cutBeforeAnswer = true};
    return errorReply(409, {"path", request.route == "/2/files/create_folder_v2" ? "conflict" : "not_found"});
  });
  for (const bool isKept : {false, true}) {
    SCOPED_TRACE(isKept);
    const auto change = [&](const std::function<void(DBRestClient&)>& request) {
      if (isKept) outcomeOf("/");
      return outcome(request);
    };
    EXPECT_EQ(change([](DBRestClient& own) { own.createFolder("/n"); }), "created /n");
    EXPECT_EQ(change([](DBRestClient& own) { own.moveFrom("/n", "/m"); }), "moved /n to /m");
    EXPECT_EQ(change([](DBRestClient& own) { own.deletePath("/m"); }), "deleted /m");
  }
}

/// A service with one item, which moves as it is told.
class OneItem {
 public:
  ScriptedReply answer(const ScriptedRequest& request) {
    const auto value = [&](const char* key) { return field(request, key); };
    if (request.route == "/2/files/get_metadata")
      return value("path") == path ? jsonReply(folderJson(path)) : errorReply(409, {"path", "not_found"});
    if (++moves == failingMove) return errorReply(409, {"to", "no_write_permission"});
    if (value("from_path") != path) return errorReply(409, {"from_lookup", "not_found"});
    path = value("to_path");
    EXPECT_LE(path.size(), 255U + std::string("/a/").size());
    if (lostAnswers.contains(moves)) return ScriptedReply{.cutBeforeAnswer = true};
    return jsonReply(R"({"metadata":)" + folderJson(path) + "}");
  }
  std::string path = "/a/docs";
  int moves = 0;
  int failingMove = 0;
  std::set<int> lostAnswers;
};

TEST_F(TreeChanges, NewLetterCaseTakesADetourAndNeverLosesTheItem) {
  struct Case {
    const char* name;
    int failingMove;
    const char* outcome;
    const char* path;
    int moves;
    std::set<int> lostAnswers{};
    std::string oldName{"docs"};
  };
  const std::string longName(251, 'n');
  const std::string longTarget = "/a/" + std::string(251, 'N');
  const std::string longOutcome = "moved /a/" + longName + " to " + longTarget;
  const Case cases[] = {{"all goes well", 0, "moved /a/docs to /a/DOCS", "/a/DOCS", 2},
                        {"cannot leave", 1, "error 403", "/a/docs", 1},
                        {"cannot arrive", 2, "error 403", "/a/docs", 3},
                        {"first answer lost", 0, "moved /a/docs to /a/DOCS", "/a/DOCS", 2, {1}},
                        {"second answer lost", 0, "moved /a/docs to /a/DOCS", "/a/DOCS", 2, {2}},
                        {"both answers lost", 0, "moved /a/docs to /a/DOCS", "/a/DOCS", 2, {1, 2}},
                        {"cannot arrive, last answer lost", 2, "error 403", "/a/docs", 3, {3}},
                        {"long name", 0, longOutcome.c_str(), longTarget.c_str(), 2, {}, longName}};
  std::mutex mutex;
  OneItem item;
  const auto serving = serve([&](const ScriptedRequest& request) {
    const std::lock_guard lock(mutex);
    return item.answer(request);
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    {
      const std::lock_guard lock(mutex);
      item = OneItem();
      item.path = "/a/" + c.oldName;
      item.failingMove = c.failingMove;
      item.lostAnswers = c.lostAnswers;
    }
    std::string newName = c.oldName;
    for (char& letter : newName) letter = static_cast<char>(std::toupper(letter));
    EXPECT_EQ(outcome([&](DBRestClient& own) { own.moveFrom("/a/" + c.oldName, "/a/" + newName); }),
              c.outcome);
    const std::lock_guard lock(mutex);
    EXPECT_EQ(item.path, c.path);
    // On a kept connection libcurl itself sends a request again whose answer was lost.
    EXPECT_GE(item.moves, c.moves);
    EXPECT_LE(item.moves, c.moves + static_cast<int>(2 * c.lostAnswers.size()));
  }
}

TEST_F(TreeChanges, NewLetterCaseArrivesEvenWhenItsClientIsGone) {
  std::mutex mutex;
  OneItem item;
  std::promise<void> firstHalf, clientGone;
  auto mayAnswer = clientGone.get_future();
  const auto serving = serve([&](const ScriptedRequest& request) {
    if (item.moves == 0) {
      firstHalf.set_value();
      mayAnswer.wait_for(std::chrono::seconds(20));
    }
    const std::lock_guard lock(mutex);
    return item.answer(request);
  });
  callbacks.run([&] { client->moveFrom("/a/docs", "/a/DOCS"); });
  ASSERT_EQ(firstHalf.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  callbacks.run([&] { client.reset(); });
  clientGone.set_value();
  session->waitForBackgroundWork(20);
  const std::lock_guard lock(mutex);
  EXPECT_EQ(item.path, "/a/DOCS");
  EXPECT_TRUE(delegate.notes().empty());
}

TEST_F(TreeChanges, LinkIsMadeOrFound) {
  struct Case {
    const char* name;
    ScriptedReply made, listed;
    const char* outcome;
  };
  const auto link = [](const std::string& permissions) {
    return R"({".tag":"file","url":"https://host/x","link_permissions":{)" + permissions + "}}";
  };
  const std::string open = link(R"("resolved_visibility":{".tag":"public"})");
  const std::string forTeam = link(R"("resolved_visibility":{".tag":"team_only"})");
  const std::string withPassword = link(R"("effective_audience":{".tag":"public"},"require_password":true)");
  const std::string exists = R"({"error":{".tag":"shared_link_already_exists")";
  const Case cases[] = {
      {"made", jsonReply(open), {}, "link /a https://host/x public"},
      {"made, audience not told",
       jsonReply(R"({"url":"https://host/x?rlkey=1&dl=0"})"),
       {},
       "link /a https://host/x?rlkey=1&dl=0 "},
      {"named in the refusal",
       jsonReply(exists + R"(,"shared_link_already_exists":{".tag":"metadata","metadata":)" + forTeam + "}}}",
                 409),
       {},
       "link /a https://host/x team_only"},
      {"found", jsonReply(exists + "}}", 409),
       jsonReply(R"({"links":[)" + withPassword + R"(],"has_more":false})"),
       "link /a https://host/x password"},
      {"not found", jsonReply(exists + "}}", 409), jsonReply(R"({"links":[],"has_more":false})"),
       "error 101"},
      {"not allowed", errorReply(409, {"access_denied"}), {}, "error 403"},
  };
  std::atomic<const Case*> current{nullptr};
  const auto serving = serve([&](const ScriptedRequest& request) {
    return request.route == "/2/sharing/list_shared_links" ? current.load()->listed : current.load()->made;
  });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    current = &c;
    EXPECT_EQ(outcome([](DBRestClient& own) { own.loadSharableLinkForFile("/a", false); }), c.outcome);
  }
}

}  // namespace

}  // namespace kzv::sdk
