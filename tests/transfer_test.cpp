#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/KZVConstants.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "tests/PluginFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class TransferTest : public PluginTest {
 protected:
  std::string localPath(const std::string& name) const { return local.path() + "/" + name; }

  /// A file of `sizeBytes` whose bytes differ from place to place (and from file to file by `seed`).
  std::shared_ptr<NSURL> makeFile(const std::string& name, std::uint64_t sizeBytes, unsigned seed = 1) {
    std::ofstream file(localPath(name), std::ios::binary);
    std::string block(std::min<std::uint64_t>(sizeBytes, 1 << 20), '\0');
    std::uint64_t state = seed * 2654435761U + 1;
    for (std::uint64_t written = 0; written < sizeBytes; written += block.size()) {
      for (std::size_t at = 0; at + 8 <= block.size(); at += 8) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        std::memcpy(&block[at], &state, 8);
      }
      if (block.size() < 8) block.assign(block.size(), static_cast<char>('a' + seed % 26));
      file.write(block.data(),
                 static_cast<std::streamsize>(std::min<std::uint64_t>(block.size(), sizeBytes - written)));
    }
    return NSURL::fileURLWithPath(localPath(name));
  }
  /// A file that takes no room on the disk: zeros, and a mark at its end.
  std::shared_ptr<NSURL> makeSparseFile(const std::string& name, std::uint64_t sizeBytes) {
    makeFile(name, 0);
    fs::resize_file(localPath(name), sizeBytes - 4);
    std::ofstream(localPath(name), std::ios::binary | std::ios::app) << "mark";
    return NSURL::fileURLWithPath(localPath(name));
  }
  static bool sameBytes(const std::string& left, const std::string& right) {
    std::ifstream one(left, std::ios::binary);
    std::ifstream two(right, std::ios::binary);
    if (!one || !two || fs::file_size(left) != fs::file_size(right)) return false;
    std::string a(1 << 20, '\0');
    std::string b(1 << 20, '\0');
    while (one.read(a.data(), static_cast<std::streamsize>(a.size())), one.gcount() > 0) {
      two.read(b.data(), one.gcount());
      if (std::memcmp(a.data(), b.data(), static_cast<std::size_t>(one.gcount())) != 0) return false;
    }
    return true;
  }
  bool put(const std::shared_ptr<NSURL>& file, const std::string& path, NSErrorRef* error = nullptr,
           const ProgressCallback& progress = nullptr) {
    return bounded([&] { return ada->writeFile(*file, path, progress, error); });
  }
  std::shared_ptr<NSURL> get(const std::string& path, NSErrorRef* error = nullptr,
                             const ProgressCallback& progress = nullptr) {
    return bounded([&] { return ada->requestFileUrl(path, progress, error); });
  }
  /// Uploads, forgets, downloads, compares.
  void expectRoundTrip(const std::shared_ptr<NSURL>& file, const std::string& path) {
    NSErrorRef error;
    ASSERT_TRUE(put(file, path, &error)) << (error ? error->description() : "no error");
    auto fresh = std::make_shared<KZVDropboxFS>(nullptr, ada->options());
    const auto copy = bounded([&] { return fresh->requestFileUrl(path, nullptr, &error); });
    ASSERT_NE(copy, nullptr) << (error ? error->description() : "no error");
    EXPECT_TRUE(sameBytes(copy->path(), file->path()));
    fresh->releaseFileUrl(*copy);
  }
  std::vector<std::string> names(const std::string& path) {
    std::vector<std::string> names;
    const auto items = bounded([&] { return ada->contentAtPath(path, false, true, nullptr); });
    for (const auto& item : items.value_or(FSItems())) names.push_back(item->name());
    return names;
  }
  /// Files below the plug-in's temporary folder.
  int filesKept() const {
    int count = 0;
    if (!ada->tmpFolderUrl()) return 0;
    for (const auto& entry : fs::recursive_directory_iterator(ada->tmpFolderUrl()->path())) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }
  /// Whether soon (a stopped transfer's file goes on the network thread) just so many files are kept.
  bool keepsSoon(int expected) const {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (filesKept() != expected && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return filesKept() == expected;
  }

  TemporaryFolder local;
};

}  // namespace

TEST_F(TransferTest, RoundTripsAreByteForByte) {
  const std::uint64_t chunk = DBRestClient::uploadChunkSizeBytes();
  struct Case {
    const char* name;
    std::uint64_t sizeBytes;
    const char* path;
  };
  const std::string longName = "/" + std::string(251, 'n') + ".bin";
  const Case cases[] = {
      {"empty", 0, "/empty"},
      {"one byte", 1, "/one byte.txt"},
      {"hash block -1", 4'194'303, "/Mixed Case/Ünï.bin"},
      {"hash block", 4'194'304, "/hash block"},
      {"hash block +1", 4'194'305, "/deco\xCC\x88mposed.bin"},
      {"chunk +1", chunk + 1, "/chunk"},
      {"255 bytes of name", 7, longName.c_str()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    expectRoundTrip(makeFile("local", c.sizeBytes, static_cast<unsigned>(c.sizeBytes % 97)), c.path);
  }
}

TEST_F(TransferTest, OneRequestBelow100MebibytesChunksFromThere) {
  standIn.forgetRequests();
  expectRoundTrip(makeSparseFile("below", 104'857'599), "/below");
  auto requests = standIn.requests();
  EXPECT_EQ(requests["files/upload"], 1);
  EXPECT_EQ(requests["files/upload_session/start"], 0);
  expectRoundTrip(makeSparseFile("border", 104'857'600), "/border");
  requests = standIn.requests();
  EXPECT_EQ(requests["files/upload"], 0);
  EXPECT_EQ(requests["files/upload_session/start"], 1);
  EXPECT_EQ(requests["files/upload_session/finish"], 1);
}

TEST_F(TransferTest, FiveFailedChunksAreSurvivedAndTheSixthEndsIt) {
  const auto file = makeSparseFile("big", 104'857'600);
  struct Case {
    const char* name;
    int failures;
    bool isStored;
  };
  for (const Case& c : {Case{"five", 5, true}, Case{"six", 6, false}}) {
    SCOPED_TRACE(c.name);
    standIn.fault({{"route", "files/upload_session/append_v2"}, {"times", c.failures}, {"status", 500}});
    NSErrorRef error;
    EXPECT_EQ(put(file, "/big", &error), c.isStored);
    EXPECT_EQ(standIn.faultHits(), c.failures);
    EXPECT_EQ(error == nullptr, c.isStored);
    standIn.clearFaults();
    const bool wasThere = ada->removeItemAtPath("/big", nullptr);
    EXPECT_EQ(wasThere, c.isStored);
  }
  EXPECT_EQ(names("/"), std::vector<std::string>());
}

TEST_F(TransferTest, AFailedTransferLeavesNothingHalfAndTheNextOneWorks) {
  standIn.write("/down.txt", std::string(300'000, 'd'));
  settle(*ada);
  struct Case {
    const char* name;
    boost::json::object fault;
    bool uploadFails;
    bool downloadFails;
  };
  const Case cases[] = {
      {"cut at the start", {{"times", 20}, {"cut_request_after", 0}}, true, true},
      {"cut in the middle of the answer", {{"times", 20}, {"cut_response_after", 1000}}, false, true},
      {"500", {{"times", 20}, {"status", 500}}, true, true},
      {"503, told when to come back", {{"times", 1}, {"status", 503}, {"retry_after", 1}}, false, false},
      {"429 because of another writer",
       {{"times", 1},
        {"status", 429},
        {"retry_after", 1},
        {"body",
         R"({"error":{"reason":{".tag":"too_many_write_operations"},"retry_after":1},"error_summary":"too_many_write_operations/"})"}},
       false,
       false},
      {"a wrong byte", {{"times", 20}, {"corrupt", true}}, true, true},
  };
  const auto file = makeFile("up", 300'000);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto fault = c.fault;
    fault["route"] = "files/download";
    standIn.fault(fault);
    NSErrorRef error;
    const auto copy = get("/down.txt", &error);
    EXPECT_EQ(copy == nullptr, c.downloadFails);
    EXPECT_EQ(error != nullptr, c.downloadFails);
    EXPECT_GE(standIn.faultHits(), 1);
    EXPECT_TRUE(keepsSoon(c.downloadFails ? 0 : 1));
    if (copy) ada->releaseFileUrl(*copy);
    ada->cache().invalidate("/down.txt");
    standIn.clearFaults();
    const auto again = get("/down.txt");
    ASSERT_NE(again, nullptr);
    ada->releaseFileUrl(*again);
    ada->cache().invalidate("/down.txt");

    fault["route"] = "files/upload";
    standIn.fault(fault);
    error = nullptr;
    put(file, "/up.bin", &error);
    standIn.clearFaults();
    const auto stored = error ? nullptr : get("/up.bin");
    EXPECT_TRUE(error || (stored && sameBytes(stored->path(), file->path())));
    if (stored) ada->releaseFileUrl(*stored);
    const auto listed = names("/");
    EXPECT_LE(listed.size(), 2U);  // whole or not there, and never a second copy
    ada->removeItemAtPath("/up.bin", nullptr);
    ada->cache().invalidate("/up.bin");
  }
}

TEST_F(TransferTest, TheProgressCallbackStopsATransferAtOnceWhereverItIs) {
  standIn.write("/down.txt", std::string(3'000'000, 'd'));
  const auto file = makeFile("up", 3'000'000);
  for (const std::uint64_t stopAt : {0U, 400U, 1000U}) {
    SCOPED_TRACE(stopAt);
    const auto progress = [stopAt](NSRange range) { return range.location < stopAt; };
    NSErrorRef error;
    EXPECT_FALSE(put(file, "/up.bin", &error, progress));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), CanceledByUserErrorDomain);
    EXPECT_EQ(error->code(), -1);
    error = nullptr;
    EXPECT_EQ(get("/down.txt", &error, progress), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), CanceledByUserErrorDomain);
    EXPECT_TRUE(keepsSoon(0));
  }
  EXPECT_NE(get("/down.txt"), nullptr);
}

TEST_F(TransferTest, AVersionStoredByAnotherDeviceIsNeverOverwritten) {
  const auto mine = makeFile("mine", 10, 1);
  ASSERT_TRUE(put(mine, "/Report.txt"));
  names("/");
  standIn.write("/Report.txt", "theirs");
  const auto changed = makeFile("mine", 12, 2);
  EXPECT_TRUE(put(changed, "/Report.txt"));
  const auto tree = standIn.tree();
  EXPECT_EQ(tree.size(), 2U);
  EXPECT_EQ(tree.at("/Report.txt"), 6);
  EXPECT_EQ(names("/").size(), 2U);
}

TEST_F(TransferTest, OwnChangesAreSeenAtOnce) {
  settle(*ada);
  const auto file = makeFile("file", 5);
  const auto expectTruth = [&](const char* after) {
    SCOPED_TRACE(after);
    EXPECT_EQ(listedTree(*ada), standIn.tree());
  };
  expectTruth("nothing");
  ASSERT_TRUE(ada->createDirectoryAtPath("/Docs", nullptr, nullptr));
  expectTruth("mkdir");
  ASSERT_TRUE(put(file, "/Docs/Report.txt"));
  ASSERT_TRUE(put(file, "/New/Folders/Deep.txt"));
  expectTruth("put");
  NSErrorRef error;
  ASSERT_TRUE(ada->moveFromPath("/Docs", "/Papers", nullptr, nullptr, &error));
  expectTruth("mv");
  EXPECT_FALSE(ada->isExists("/Docs/Report.txt"));
  ASSERT_TRUE(ada->moveFromPath("/Papers", "/PAPERS", nullptr, nullptr, &error)) << error->description();
  expectTruth("a rename of case only");
  ASSERT_TRUE(ada->removeItemAtPath("/New", nullptr));
  expectTruth("rm");
  EXPECT_FALSE(ada->isExists("/New/Folders"));
  standIn.forgetRequests();
  EXPECT_TRUE(ada->createDirectoryAtPath("/PAPERS", nullptr, &error));
  EXPECT_EQ(standIn.requests(), (std::map<std::string, int>()));
}

TEST_F(TransferTest, ManyUploadsIntoAListedFolderAskForNoRevisions) {
  standIn.makeTree("/many", 0, 50);
  names("/many");
  standIn.forgetRequests();
  for (int number = 0; number < 20; ++number) {
    ASSERT_TRUE(put(makeFile("file", 3), "/many/new " + std::to_string(number)));
  }
  EXPECT_EQ(standIn.requests(), (std::map<std::string, int>{{"files/upload", 20}}));
}

TEST_F(TransferTest, LocalCopiesAreSharedAndStayInsideTheirFolder) {
  standIn.write("/Docs/Report.txt", "12345");
  standIn.write("/Docs/empty", "");
  const auto first = get("/Docs/Report.txt");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(get("/docs/REPORT.txt")->path(), first->path());
  standIn.forgetRequests();
  const auto empty = get("/Docs/empty");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(standIn.requests()["files/download"], 0);
  const auto folder = get("/Docs");
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(fs::file_size(folder->path() + "/Report.txt"), 5U);
  for (const char* hostile : {"/Docs/../Docs/Report.txt", "/./Docs/Report.txt", "/Docs//Report.txt"}) {
    const auto copy = get(hostile);
    EXPECT_TRUE(!copy || copy->path().starts_with(ada->tmpFolderUrl()->path() + "/")) << copy->path();
  }
  NSErrorRef error;
  EXPECT_EQ(get("/never", &error), nullptr);
  EXPECT_EQ(error->code(), 404);
  const auto stray = makeFile("stray", 3);
  ada->releaseFileUrl(*stray);
  EXPECT_FALSE(fs::exists(stray->path()));
}

TEST_F(TransferTest, AFullDiskFailsTheDownloadAndLeavesNothing) {
  standIn.write("/big.txt", std::string(3'000'000, 'x'));
  const std::string small = localPath("small");
  fs::create_directory(small);
  if (mount("kzv-test", small.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "a small disk cannot be mounted here";
  ada->setTmpFolderUrl(NSURL::fileURLWithPath(small + "/copies"));
  NSErrorRef error;
  EXPECT_EQ(get("/big.txt", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_TRUE(keepsSoon(0));
  ada->setTmpFolderUrl(nullptr);
  umount(small.c_str());
  EXPECT_NE(get("/big.txt"), nullptr);
}
