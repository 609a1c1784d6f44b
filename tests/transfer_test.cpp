#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <span>
#include <sstream>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/FSError.h"
#include "core/KZVConstants.h"
#include "core/copy/KZVLocalFS.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "tests/PluginFixture.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::mutex syncedMutex;
std::set<std::pair<dev_t, ino_t>> syncedFiles;  // guarded by syncedMutex

bool isSynced(const std::string& path) {
  struct stat status {};
  const std::lock_guard lock(syncedMutex);
  return ::stat(path.c_str(), &status) == 0 && syncedFiles.contains({status.st_dev, status.st_ino});
}

}  // namespace

/// Takes the place of the system's in this program and notes which files are synced.
extern "C" int fsync(int file) {
  struct stat status {};
  const std::lock_guard lock(syncedMutex);
  if (::fstat(file, &status) == 0) syncedFiles.insert({status.st_dev, status.st_ino});
  return static_cast<int>(::syscall(SYS_fsync, file));
}

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
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  NSDate::Time dateOf(const std::string& path) {
    const auto attributes = bounded([&] { return ada->attributesAtPath(path, nullptr); });
    const auto date = attributes ? as<NSDate>(attributes->objectForKey(NSFileModificationDate)) : nullptr;
    return date ? date->time() : NSDate::Time();
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
  /// Copies an item of the account to the disk, below `local`.
  bool copyOut(const std::string& from, const std::string& to, NSErrorRef* error) {
    return bounded([&] {
      return KZVLocalFS::shared().writeFiles(KZVBatchId(), {std::make_shared<FSItem>(from, ada)},
                                             localPath(to), nullptr, nullptr, nullptr, error);
    });
  }
  /// Copies an item of the disk to the account.
  bool copyIn(
      const std::string& from, const std::string& to, NSErrorRef* error,
      const std::function<void(const kzv::copy::CopiedItem&)>& copied = [](const auto&) {}) {
    return bounded([&] {
      return KZVLocalFS::shared().sendFiles(
          KZVBatchId(), from, ada, to, nullptr, nullptr,
          [&](const kzv::copy::CopiedItem& item) { return copied(item), true; }, error);
    });
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
  int filesKept() const { return ada->tmpFolderUrl() ? filesBelow(ada->tmpFolderUrl()->path()) : 0; }
  static int filesBelow(const std::string& folder) {
    int count = 0;
    if (!fs::exists(folder)) return 0;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
      count += entry.is_regular_file() ? 1 : 0;
    return count;
  }
  /// Whether soon (a stopped transfer's file goes on the network thread) just so many files are kept.
  bool keepsSoon(int expected) const {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (filesKept() != expected && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return filesKept() == expected;
  }

  /// Waits until the faults have been carried out so often.
  void reachHits(int count) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    int hits = 0;
    while ((hits = standIn.faultHits()) < count && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    EXPECT_GE(hits, count);
  }

  TemporaryFolder local;
};

}  // namespace

TEST_F(TransferTest, RoundTripsAreByteForByte) {
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
      {"255 bytes of name", 7, longName.c_str()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    expectRoundTrip(makeFile("local", c.sizeBytes, static_cast<unsigned>(c.sizeBytes % 97)), c.path);
  }
}

TEST_F(TransferTest, OneRequestBelow100MebibytesChunksFromThere) {
  const std::uint64_t chunk = DBRestClient::uploadChunkSizeBytes();
  ASSERT_EQ(chunk, 16U * 1024 * 1024) << "the numbers of chunks below are for this size";
  struct Case {
    const char* name;
    std::uint64_t sizeBytes;
    int appended;  // chunks after the first; negative: a single request
  };
  const Case cases[] = {
      {"below the border", 104'857'599, -1}, {"at the border", 104'857'600, 6},
      {"chunk -1", 7 * chunk - 1, 6},        {"whole chunks", 7 * chunk, 6},
      {"chunk +1", 7 * chunk + 1, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const bool isChunked = c.appended >= 0;
    const auto file = makeSparseFile("large", c.sizeBytes);
    standIn.forgetRequests();
    expectRoundTrip(file, std::string("/") + c.name);
    auto requests = standIn.requests();
    EXPECT_EQ(requests["files/upload"], isChunked ? 0 : 1);
    EXPECT_EQ(requests["files/upload_session/start"], isChunked ? 1 : 0);
    EXPECT_EQ(requests["files/upload_session/append_v2"], std::max(c.appended, 0));
    EXPECT_EQ(requests["files/upload_session/finish"], isChunked ? 1 : 0);
  }
}

TEST_F(TransferTest, FiveFailedChunksAreSurvivedAndTheSixthEndsIt) {
  const auto file = makeSparseFile("big", 104'857'600);
  using Object = boost::json::object;
  struct Case {
    const char* name;
    int failures;
    Object fault;
    bool isStored;
    std::chrono::seconds toldToWait{0};
  };
  const Case cases[] = {{"five", 5, {{"status", 500}}, true},
                        {"six", 6, {{"status", 500}}, false},
                        {"being told to wait is no failure", 7, {{"status", 429}, {"retry_after", 0}}, true},
                        {"waits as told", 2, {{"status", 503}, {"retry_after", 1}}, true, 2s}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Object fault = c.fault;
    fault["route"] = "files/upload_session/append_v2";
    fault["times"] = c.failures;
    standIn.fault(fault);
    NSErrorRef error;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(put(file, "/big", &error), c.isStored);
    EXPECT_GE(std::chrono::steady_clock::now() - start, c.toldToWait);
    EXPECT_EQ(standIn.faultHits(), c.failures);
    EXPECT_EQ(error == nullptr, c.isStored);
    standIn.clearFaults();
    const bool wasThere = ada->removeItemAtPath("/big", nullptr);
    EXPECT_EQ(wasThere, c.isStored);
  }
  EXPECT_EQ(names("/"), std::vector<std::string>());
}

namespace {

struct Operation {
  const char* name;
  const char* route;
  std::uint64_t sizeBytes;  // of the upload; 0: a download
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

class FailedTransferTest : public TransferTest, public testing::WithParamInterface<Operation> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Of, FailedTransferTest,
                         testing::Values(Operation{"upload", "files/upload", 300'000},
                                         Operation{"chunk", "files/upload_session/append_v2", 104'857'600},
                                         Operation{"commit", "files/upload_session/finish", 104'857'600},
                                         Operation{"download", "files/download", 0}),
                         [](const auto& operation) { return operation.param.name; });

TEST_P(FailedTransferTest, LeavesNothingHalfAndTheNextOneWorks) {
  const Operation& operation = GetParam();
  const bool isUpload = operation.sizeBytes > 0;
  const std::string downloaded(300'000, 'd');
  standIn.write("/down.txt", downloaded);
  const auto small = makeFile("up", 300'000);
  const auto file = isUpload ? makeFile("sent", operation.sizeBytes) : nullptr;
  const auto unlink = [&] { KZVDropboxFS::unlinkDBUser(*ada->userId()); };
  using Object = boost::json::object;
  constexpr std::uint64_t never = 2000;
  struct Case {
    const char* name;
    Object fault;
    std::string_view fails;  // the operations that it ends
    std::uint64_t stopAt = never;
    std::function<void()> meanwhile{};
  };
  constexpr std::string_view all = "upload chunk commit download";
  const Object contention{
      {"error", {{"reason", {{".tag", "too_many_write_operations"}}}, {"retry_after", 1}}},
      {"error_summary", "too_many_write_operations/"}};
  const Case cases[] = {
      {"cut at the start", {{"times", 20}, {"cut_request_after", 0}}, all},
      {"cut in the middle of what is sent", {{"times", 20}, {"cut_request_after", 100'000}}, "upload chunk"},
      {"cut in the middle of the answer", {{"times", 20}, {"cut_response_after", 30}}, "upload download"},
      {"the answer lost", {{"times", 1}, {"drop_answer", true}}, ""},
      {"every answer lost", {{"times", 20}, {"drop_answer", true}}, "upload chunk download"},
      {"429", {{"times", 1}, {"status", 429}, {"retry_after", 0}}, ""},
      {"429 because of another writer",
       {{"times", 1}, {"status", 429}, {"retry_after", 0}, {"body", contention}},
       ""},
      {"500", {{"times", 20}, {"status", 500}}, all},
      {"503", {{"times", 20}, {"status", 503}}, all},
      {"503, told when to come back", {{"times", 1}, {"status", 503}, {"retry_after", 0}}, ""},
      {"wrong bytes", {{"times", 20}, {"corrupt", true}}, "upload chunk download"},
      {"stop at once", {}, all, 0},
      {"stop in the middle", {}, all, 400},
      {"stop at the end", {}, all, 1000},
      {"unlinked meanwhile", {{"delay_ms", 200}}, "chunk", never, unlink},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.meanwhile) standIn.fault({{"route", "auth/token/revoke"}, {"status", 400}});
    auto fault = c.fault;
    fault["route"] = operation.route;
    if (!c.fault.empty()) standIn.fault(fault);
    NSErrorRef error;
    const auto progress = [&](NSRange range) { return range.location < c.stopAt; };
    auto transfer = std::async(std::launch::async, [&] {
      if (isUpload) return put(file, "/up.bin", &error, progress);
      const auto copy = get("/down.txt", &error, progress);
      if (copy) ada->releaseFileUrl(*copy);
      return copy != nullptr;
    });
    if (c.meanwhile) {
      reachHits(1);
      c.meanwhile();
      reachHits(2);  // the token stays as it was, for the next linking
    }
    const bool isDone = transfer.get();
    // After an unlinking a call that does not wait for its answer yet ends without one and without an error.
    const bool fails = c.fails.find(operation.name) != std::string_view::npos || (c.meanwhile && !isDone);
    EXPECT_EQ(isDone, !fails) << (error ? error->description() : "no error");
    EXPECT_EQ(error == nullptr, isDone || (c.meanwhile && !error));
    EXPECT_EQ(error && error->domain() == CanceledByUserErrorDomain, c.stopAt != never);
    if (c.meanwhile) ada = open("ada-token");
    ada->cache().invalidate("/down.txt");
    EXPECT_TRUE(keepsSoon(0));
    standIn.clearFaults();

    const auto tree = standIn.tree();
    EXPECT_EQ(tree.at("/down.txt"), static_cast<std::int64_t>(downloaded.size()));
    const auto stored = tree.find("/up.bin");
    const bool isThere = stored != tree.end();
    EXPECT_TRUE(isThere || !isUpload || fails);
    EXPECT_TRUE(!isThere || std::cmp_equal(stored->second, operation.sizeBytes)) << "half a file";
    EXPECT_EQ(tree.size(), isThere ? 2U : 1U) << "a copy beside it";
    EXPECT_FALSE(isThere && fails && c.fault.contains("corrupt")) << "wrong bytes as if they were right";

    EXPECT_TRUE(!isUpload || put(small, "/up.bin"));
    const auto copy = get(isUpload ? "/up.bin" : "/down.txt", &error);
    ASSERT_NE(copy, nullptr) << error->description();
    EXPECT_TRUE(!isUpload || sameBytes(copy->path(), small->path()));
    EXPECT_EQ(standIn.tree().size(), isUpload ? 2U : 1U) << "the next one was stored beside the first";
    ada->releaseFileUrl(*copy);
    ada->cache().invalidate("/up.bin");
    ada->cache().invalidate("/down.txt");
    if (isUpload) ada->removeItemAtPath("/up.bin", nullptr);
  }
}

TEST_F(TransferTest, AStopIsAnsweredAtOnceAtAnyMoment) {
  standIn.write("/Docs/down.txt", std::string(3'000'000, 'd'));
  standIn.write("/Docs/Sub/deep.txt", "deep");
  const auto small = makeFile("up", 3'000'000);
  const auto large = makeSparseFile("large", 104'857'600);
  const auto download = [&](const ProgressCallback& progress, NSErrorRef* error) {
    const auto copy = ada->requestFileUrl("/Docs/down.txt", progress, error);
    if (copy) ada->releaseFileUrl(*copy);
    return copy != nullptr;
  };
  const auto folder = [&](const ProgressCallback& progress, NSErrorRef* error) {
    return KZVLocalFS::shared().writeFiles(KZVBatchId(), {std::make_shared<FSItem>("/Docs", ada)},
                                           localPath("copy"), nullptr, progress, nullptr, error);
  };
  const auto upload = [&](const ProgressCallback& progress, NSErrorRef* error) {
    return ada->writeFile(*small, "/up.bin", progress, error);
  };
  const auto largeUpload = [&](const ProgressCallback& progress, NSErrorRef* error) {
    return ada->writeFile(*large, "/up.bin", progress, error);
  };
  using Call = std::function<bool(const ProgressCallback&, NSErrorRef*)>;
  struct Case {
    const char* name;
    Call call;
    const char* route;
    boost::json::object fault;
    Call other{};  // under way before, and what the call waits for
  };
  using Object = boost::json::object;
  // Longer than the test waits for the answer to a stop; ends with clearFaults.
  const Object silence{{"delay_ms", 60'000}};
  const Object pause{{"status", 503}, {"retry_after", 60}};
  const Case cases[] = {
      {"download: what is there", download, "files/get_metadata", silence},
      {"download: the first byte", download, "files/download", silence},
      {"download: the next byte", download, "files/download", {{"stall_after", 1'000'000}}},
      {"download: told to come back later", download, "files/download", pause},
      {"download: a new token", download, "files/download", {{"status", 401}}},
      {"download: another caller's copy of the file", download, "files/download", silence, download},
      {"folder: a listing", folder, "files/list_folder", silence},
      {"folder: a file in it", folder, "files/download", {{"delay_ms", 60'000}, {"times", 2}}},
      {"upload: what it replaces", upload, "files/get_metadata", silence},
      {"upload: the answer", upload, "files/upload", silence},
      {"upload: told to come back later", upload, "files/upload", pause},
      {"chunk: the first answer", largeUpload, "files/upload_session/start", silence},
      {"chunk: an answer", largeUpload, "files/upload_session/append_v2", silence},
      {"commit: the answer", largeUpload, "files/upload_session/finish", silence},
      {"commit: told to come back later", largeUpload, "files/upload_session/finish", pause},
  };
  // A token answer, so that the account can ask for new ones; the stand-in does not get as far as to refuse.
  ada = open(R"({"access_token":"ada-token","refresh_token":"renewable","expires_in":14400})");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ada = std::make_shared<KZVDropboxFS>(nullptr, ada->options());  // knows nothing yet
    auto fault = c.fault;
    fault["route"] = c.route;
    standIn.fault(fault);
    standIn.fault({{"route", "oauth2/token"}, {"delay_ms", 60'000}});
    const bool needsToken = c.fault.contains("status") && c.fault.at("status") == 401;
    std::atomic<bool> isOtherStopped = false;
    std::future<bool> other;
    if (c.other) {
      other = std::async(std::launch::async,
                         [&] { return c.other([&](NSRange) { return !isOtherStopped; }, nullptr); });
      reachHits(1);
    }
    std::atomic<bool> isStopped = false;
    std::atomic<int> asked = 0;
    NSErrorRef error;
    auto call = std::async(std::launch::async,
                           [&] { return c.call([&](NSRange) { return ++asked, !isStopped; }, &error); });
    reachHits(needsToken ? 2 : 1);
    // So often it is asked in this state that the last answer cannot have been to an earlier one.
    for (const int before = asked; asked < before + 3 && call.wait_for(0s) != std::future_status::ready;)
      std::this_thread::yield();
    isStopped = true;
    ASSERT_EQ(call.wait_for(20s), std::future_status::ready);
    EXPECT_FALSE(call.get());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), CanceledByUserErrorDomain) << error->description();
    EXPECT_EQ(error->code(), -1);
    isOtherStopped = true;
    if (other.valid()) other.get();
    standIn.clearFaults();
    EXPECT_TRUE(keepsSoon(0));
    EXPECT_EQ(filesBelow(localPath("copy")), 0);
    EXPECT_FALSE(standIn.tree().contains("/up.bin"));
    error = nullptr;
    EXPECT_TRUE(bounded([&] { return c.call(nullptr, &error); })) << (error ? error->description() : "");
    ada->removeItemAtPath("/up.bin", nullptr);
    fs::remove_all(localPath("copy"));
  }
}

TEST_F(TransferTest, NoFileOfABatchIsLostToOtherWritersOrDamage) {
  using Object = boost::json::object;
  struct Case {
    const char* name;
    int files;
    Object settings;
    Object fault{};
  };
  const Case cases[] = {
      {"some refused", 40, {{"write_contention", true}, {"commit_delay_ms", 20}}},
      {"one writer, 429", 100, {{"single_writer", true}, {"commit_delay_ms", 20}}},
      {"one writer, 409",
       100,
       {{"single_writer", true}, {"commit_delay_ms", 20}, {"contention_status", 409}}},
      {"damaged on the way",
       40,
       {{"single_writer", false}, {"write_contention", false}, {"commit_delay_ms", 0}},
       {{"route", "files/upload"}, {"every", 5}, {"corrupt", "request"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(localPath("batch"));
    fs::remove_all(localPath("back"));
    fs::create_directory(localPath("batch"));
    for (int number = 0; number < c.files; ++number)
      makeFile("batch/" + std::to_string(number), 1000, static_cast<unsigned>(number));
    standIn.settings(c.settings);
    if (!c.fault.empty()) standIn.fault(c.fault);
    standIn.forgetRequests();
    NSErrorRef error;
    EXPECT_TRUE(copyIn(localPath("batch"), "/batch", &error)) << (error ? error->description() : "");
    EXPECT_GT(standIn.requests()["files/upload"], c.files) << "the order was not carried out";
    standIn.clearFaults();
    EXPECT_EQ(standIn.tree().size(), static_cast<std::size_t>(c.files) + 1);
    EXPECT_TRUE(copyOut("/batch", "back", &error));
    for (int number = 0; number < c.files; ++number) {
      const std::string name = "/" + std::to_string(number);
      EXPECT_TRUE(sameBytes(localPath("batch") + name, localPath("back") + name)) << name;
    }
    EXPECT_TRUE(ada->removeItemAtPath("/batch", &error));
  }
}

TEST_F(TransferTest, AFileThatChangesWhileItIsSentIsStoredWholeOrNotAtAll) {
  const auto rewrite = [](const std::string& path) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file << "changed";
    file.seekp(0, std::ios::end);
    file << "changed";
  };
  const auto cut = [](const std::string& path) { fs::resize_file(path, fs::file_size(path) / 2); };
  const auto replace = [](const std::string& path) {
    std::ofstream(path + ".new") << "another file";
    fs::rename(path + ".new", path);
  };
  constexpr int always = 1'000'000;
  struct Case {
    const char* name;
    std::function<void(const std::string&)> change;
    int times;
    bool isStored;
  };
  const Case cases[] = {{"rewritten", rewrite, 1, true},
                        {"cut", cut, 1, true},
                        {"replaced", replace, 1, true},
                        {"rewritten all the time", rewrite, always, false}};
  for (const std::uint64_t sizeBytes : {60'000'000, 104'857'600}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name + std::string(" ") + std::to_string(sizeBytes));
      const auto file = makeSparseFile("changing", sizeBytes);
      // So that the body does not fit into the buffers before the first report of progress.
      standIn.fault({{"route", "files/upload"}, {"times", 2}, {"delay_ms", 200}});
      int left = c.times;
      NSErrorRef error;
      EXPECT_EQ(put(file, "/stored", &error,
                    [&](NSRange range) {
                      if (range.location > 0 && range.location < 1000 && left-- > 0) c.change(file->path());
                      return true;
                    }),
                c.isStored)
          << (error ? error->description() : "");
      EXPECT_LT(left, c.times) << "it has not changed";
      standIn.clearFaults();
      EXPECT_EQ(standIn.tree().size(), c.isStored ? 1U : 0U);
      if (c.isStored) {
        std::ifstream bytes(file->path(), std::ios::binary);
        EXPECT_TRUE(standIn.content("/stored") == std::string(std::istreambuf_iterator<char>(bytes), {}));
        ada->removeItemAtPath("/stored", nullptr);
      } else {
        ASSERT_TRUE(error);
        EXPECT_EQ(fsErrorCode(error), FSErrorCode::busy) << error->description();
        EXPECT_NE(error->localizedDescription().find("changed during the upload"), std::string::npos);
      }
    }
  }
}

// libcurl repeats by itself what it sent on a kept connection that turned out dead, and does not rewind a
// body of which it had read a piece, but sent nothing: then bytes are missing, and both sides wait for a
// minute.
TEST_F(TransferTest, LostAnswersInARowKeepNobodyWaiting) {
  const auto file = makeSparseFile("big", 104'857'600);
  for (int i = 0; i < 16; ++i) {
    standIn.fault({{"route", "files/upload_session/append_v2"}, {"times", 2}, {"drop_answer", true}});
    NSErrorRef error;
    ASSERT_TRUE(put(file, "/big", &error)) << error->description();  // within the patience of a call
    standIn.clearFaults();
    ada->removeItemAtPath("/big", nullptr);
  }
}

TEST_F(TransferTest, ADamagedChunkIsReplacedAlsoOverAnOlderVersion) {
  ASSERT_TRUE(put(makeFile("older", 5), "/big"));
  standIn.fault({{"route", "files/upload_session/append_v2"}, {"times", 1}, {"corrupt", "request"}});
  expectRoundTrip(makeSparseFile("big", 104'857'600), "/big");
  EXPECT_EQ(standIn.faultHits(), 1);
  EXPECT_EQ(standIn.tree().size(), 1U) << "stored beside the damaged one";
}

TEST_F(TransferTest, NamesThatTheServiceTakesForOneNeverOverwriteEachOther) {
  const std::string composed = "caf\xC3\xA9", decomposed = "cafe\xCC\x81";
  for (const std::string& name : {std::string("A.txt"), std::string("a.txt"), composed, decomposed}) {
    fs::create_directories(localPath("twins/D"));
    fs::create_directories(localPath("twins/d"));
    for (const char* folder : {"twins/", "twins/D/", "twins/d/"})
      std::ofstream(localPath(folder + name)) << folder << name;
  }
  std::set<std::string> refused;
  EXPECT_FALSE(copyIn(localPath("twins"), "/twins", nullptr, [&](const auto& item) {
    if (item.failure) refused.insert(item.from.substr(localPath("").size()));
  }));
  EXPECT_EQ(refused, (std::set<std::string>{"twins/d", "twins/a.txt", "twins/" + composed, "twins/D/a.txt",
                                            "twins/D/" + composed}));
  EXPECT_EQ(standIn.tree().size(), 6U);
  EXPECT_EQ(standIn.content("/twins/D/a.txt"), "twins/D/A.txt");
  EXPECT_EQ(standIn.content("/twins/" + composed), "twins/" + decomposed);
}

TEST_F(TransferTest, WhatCanBeReadIsSentWhateverSizeTheFileSystemTells) {
  for (const char* path : {"/proc/version", "/sys/kernel/mm/transparent_hugepage/enabled"}) {
    SCOPED_TRACE(path);
    std::ifstream file(path);
    if (!file) continue;  // not on every system
    const std::string content(std::istreambuf_iterator<char>(file), {});
    ASSERT_NE(content.size(), fs::file_size(path));
    NSErrorRef error;
    const auto stored = bounded([&] {
      return ada->storeFile(*NSURL::fileURLWithPath(path), "/stored", WriteBase(), nullptr, &error);
    });
    ASSERT_TRUE(stored) << error->description();
    EXPECT_EQ(stored->sizeBytes, content.size());
    EXPECT_EQ(standIn.content("/stored"), content);
  }
}

TEST_F(TransferTest, AVersionStoredByAnotherDeviceIsNeverOverwrittenAndThatIsTold) {
  fs::create_directory(localPath("docs"));
  const auto mine = makeFile("docs/Report.txt", 10, 1);
  struct Case {
    const char* name;
    std::string from;
    std::string to;
    bool isChanged;
    std::string conflictsWith;
  };
  const Case cases[] = {
      {"a file", mine->path(), "/docs/Report.txt", true, "/docs/Report.txt"},
      {"a folder", localPath("docs"), "/docs", true, "/docs/Report.txt"},
      {"only its name was spelt otherwise", mine->path(), "/docs/REPORT.txt", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ada->removeItemAtPath("/docs", nullptr);
    ASSERT_TRUE(put(mine, "/docs/Report.txt"));
    names("/docs");
    if (c.isChanged) standIn.write("/docs/Report.txt", "theirs");
    makeFile("docs/Report.txt", 12, 2);
    std::vector<kzv::copy::CopiedItem> files;
    EXPECT_TRUE(copyIn(c.from, c.to, nullptr, [&](const auto& item) {
      if (!item.isDirectory) files.push_back(item);
    }));
    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(files[0].conflictsWith, c.conflictsWith);
    const auto tree = standIn.tree();
    EXPECT_EQ(tree.size(), c.isChanged ? 3U : 2U);
    EXPECT_EQ(tree.at("/docs/Report.txt"), c.isChanged ? 6 : 12);
    EXPECT_TRUE(!c.isChanged || tree.at(files[0].to) == 12) << files[0].to;
  }
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
  for (std::size_t size = 1; size <= 20; ++size) {
    ASSERT_TRUE(put(makeFile("file", size), "/PAPERS/Report.txt"));
    const auto copy = get("/papers/REPORT.txt");
    ASSERT_NE(copy, nullptr);
    ASSERT_EQ(fs::file_size(copy->path()), size) << "an older copy was given";
    ada->releaseFileUrl(*copy);
  }
  standIn.forgetRequests();
  EXPECT_TRUE(ada->createDirectoryAtPath("/PAPERS", nullptr, &error));
  EXPECT_EQ(standIn.requests(), (std::map<std::string, int>()));
}

TEST_F(TransferTest, ManyUploadsIntoAListedFolderAskForNoRevisions) {
  standIn.makeTree("/many", 0, 50);
  names("/many");
  standIn.forgetRequests();
  for (int number = 0; number < 20; ++number) {  // each name twice; a sigma at the end of a word
    ASSERT_TRUE(put(makeFile("file", 3), "/many/ΝΕΟΣ " + std::to_string(number % 10)));
  }
  EXPECT_EQ(standIn.requests(), (std::map<std::string, int>{{"files/upload", 20}}));
  EXPECT_EQ(names("/many").size(), 60U);
}

TEST_F(TransferTest, ADownloadMayBringANewerVersionThanTheOneKnown) {
  standIn.write("/Docs/Report.txt", "first");
  settle(*ada);
  ASSERT_EQ(names("/Docs").size(), 1U);
  const auto before = ada->revisionAtPath("/Docs/Report.txt");
  standIn.write("/Docs/Report.txt", "the second");
  const auto copy = get("/Docs/Report.txt");
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(fs::file_size(copy->path()), 10U);
  const auto revision = ada->revisionAtPath("/Docs/Report.txt");
  EXPECT_NE(revision, before) << "the bytes are the second version's";
  EXPECT_EQ(listedTree(*ada).at("/Docs/Report.txt"), 10);
  ASSERT_TRUE(revision);
  const auto stored = bounded([&] {
    return ada->storeFile(*makeFile("third", 3), "/Docs/Report.txt", {WriteBase::Kind::revision, *revision},
                          nullptr, nullptr);
  });
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->path, "/Docs/Report.txt") << "nobody else has changed it since";
  ada->releaseFileUrl(*copy);
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
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::notFound);
  const auto stray = makeFile("stray", 3);
  ada->releaseFileUrl(*stray);
  EXPECT_FALSE(fs::exists(stray->path()));
}

TEST_F(TransferTest, HeldCopiesStayWhenAPathChangesItsKind) {
  settle(*ada);
  struct Case {
    const char* held;
    const char* gone;   // what is removed then
    const char* other;  // what stands in its way afterwards
  };
  for (const Case& c : {Case{"/x", "/x", "/x/y"}, Case{"/z/y", "/z", "/z"}}) {
    SCOPED_TRACE(c.other);
    standIn.write(c.held, "held");
    const auto held = get(c.held);
    ASSERT_NE(held, nullptr);
    standIn.remove(c.gone);
    standIn.write(c.other, "other");
    bounded([&] { return ada->pollForChanges(), true; });
    NSErrorRef error;
    const auto other = get(c.other, &error);
    ASSERT_NE(other, nullptr) << error->description();
    EXPECT_EQ(contentOf(other->path()), "other");
    EXPECT_EQ(contentOf(held->path()), "held");
    ada->releaseFileUrl(*held);
    ada->releaseFileUrl(*other);
  }
}

TEST_F(TransferTest, LocalCopiesAreTheOwnersAloneAlsoInAFolderMadeAnew) {
  standIn.write("/Docs/Sub/Report.txt", "12345");
  standIn.write("/Docs/empty", "");
  settle(*ada);
  const mode_t before = umask(022);
  for (int round = 0; round < 2; ++round) {
    for (const char* path : {"/Docs/Sub/Report.txt", "/Docs/empty", "/Docs"}) {
      const auto copy = get(path);
      ASSERT_NE(copy, nullptr) << path;
      ada->releaseFileUrl(*copy);
    }
    const fs::path folder = ada->tmpFolderUrl()->path();
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms(0700));
    EXPECT_EQ(filesKept(), 4);
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      EXPECT_EQ(entry.status().permissions(), fs::perms(entry.is_directory() ? 0700 : 0600)) << entry.path();
    }
    fs::remove_all(folder);
  }
  umask(before);
}

TEST_F(TransferTest, NamesThatTheDiskCannotHoldCanBeReadButOnlyBeStoredUnderOthers) {
  std::string name;
  for (int i = 0; i < 100; ++i) name += "\u6587";
  name += ".txt";
  std::string deep = "/deep";
  while (deep.size() < 5000) deep += "/" + std::string(200, 'd');
  standIn.write("/" + name, "long");
  standIn.write(deep, "deep");
  const auto copy = get("/" + name);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(contentOf(copy->path()), "long");
  EXPECT_TRUE(copy->path().ends_with("\u6587.txt")) << "programs go by the extension";
  const auto deepCopy = get(deep);
  ASSERT_NE(deepCopy, nullptr);
  EXPECT_EQ(contentOf(deepCopy->path()), "deep");
  standIn.forgetRequests();
  NSErrorRef error;
  EXPECT_FALSE(copyOut("/" + name, name, &error));
  EXPECT_EQ(error->code(), ENAMETOOLONG);
  EXPECT_EQ(standIn.requests()["files/download"], 0);
  EXPECT_TRUE(copyOut("/" + name, "short.txt", &error)) << error->description();
  EXPECT_EQ(contentOf(localPath("short.txt")), "long");
}

TEST_F(TransferTest, AFetchedFileIsWrittenOnceBesideItsPlaceAndSynced) {
  standIn.write("/Docs/Report.txt", "12345");
  standIn.write("/Docs/empty", "");
  NSErrorRef error;
  ASSERT_TRUE(copyOut("/Docs", "Docs", &error)) << error->description();
  EXPECT_EQ(contentOf(localPath("Docs/Report.txt")), "12345");
  EXPECT_EQ(ada->tmpFolderUrl(), nullptr) << "a local copy was made";
  for (const char* name : {"Docs/Report.txt", "Docs/empty", "Docs"}) {
    EXPECT_TRUE(isSynced(localPath(name))) << name;
    EXPECT_TRUE(fs::is_directory(localPath(name)) ||
                fs::last_write_time(localPath(name)) ==
                    std::chrono::file_clock::from_sys(dateOf("/" + std::string(name))));
  }
}

TEST_F(TransferTest, AnAnswerOfSomebodyElseReachesNoFile) {
  standIn.write("/Report.txt", "12345");
  std::ofstream(localPath("Report.txt")) << "old";
  standIn.fault(
      {{"route", "files/download"}, {"times", 20}, {"status", 200}, {"body", "<html>Sign in</html>"}});
  const auto fetch = [&](NSErrorRef* error) { return copyOut("/Report.txt", "Report.txt", error); };
  NSErrorRef error;
  EXPECT_FALSE(fetch(&error));
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::damaged);
  EXPECT_EQ(get("/Report.txt", &error), nullptr);
  EXPECT_EQ(contentOf(localPath("Report.txt")), "old");
  EXPECT_EQ(filesBelow(local.path()), 1);
  EXPECT_TRUE(keepsSoon(0));
  standIn.clearFaults();
  fs::permissions(localPath("Report.txt"), fs::perms(0600));
  EXPECT_TRUE(fetch(&error));
  EXPECT_EQ(contentOf(localPath("Report.txt")), "12345");
  EXPECT_EQ(fs::status(localPath("Report.txt")).permissions(), fs::perms(0600)) << "open to others now";
}

TEST_F(TransferTest, AFullDiskFailsTheDownloadAndLeavesNothing) {
  standIn.write("/big.txt", std::string(3'000'000, 'x'));
  const std::string small = localPath("small");
  fs::create_directory(small);
  if (mount("kzv-test", small.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "a small disk cannot be mounted here";
  // Whatever is still open on it, it is out of sight, and gone with the last user.
  const std::shared_ptr<void> mounted(nullptr, [&](void*) { umount2(small.c_str(), MNT_DETACH); });
  ada->setTmpFolderUrl(NSURL::fileURLWithPath(small + "/copies"));
  NSErrorRef error;
  std::uint64_t reached = 0;
  const auto progress = [&](NSRange range) { return reached = std::max(reached, range.location), true; };
  EXPECT_EQ(get("/big.txt", &error, progress), nullptr);
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::noSpace);
  EXPECT_EQ(reached, 0U) << "what cannot be stored need not come";
  EXPECT_TRUE(keepsSoon(0));
  ada->setTmpFolderUrl(nullptr);
  EXPECT_NE(get("/big.txt"), nullptr);
}

TEST_F(TransferTest, AReaderKeepsToItsVersionWhateverHappensToTheFile) {
  standIn.write("/Docs/f", "first");
  settle(*ada);
  const auto item = [&](const char* path) { return bounded([&] { return ada->itemAtPath(path, nullptr); }); };
  const auto open = [&](const char* path, const std::string& version, NSErrorRef* error = nullptr) {
    return bounded([&] { return ada->openReader(path, version, nullptr, error); });
  };
  const auto all = [](FSReader& reader) {
    std::string text(reader.size(), '\0');
    const auto count = reader.read(0, std::as_writable_bytes(std::span(text)), nullptr, nullptr);
    return count == text.size() ? text : "short";
  };
  const auto first = item("/Docs/f");
  ASSERT_TRUE(first);
  EXPECT_FALSE(first->version().empty());
  EXPECT_FALSE(first->id().empty());
  const auto listed = bounded([&] { return ada->contentAtPath("/Docs", false, true, nullptr); });
  EXPECT_EQ(listed->front()->version(), first->version());
  EXPECT_EQ(listed->front()->id(), first->id());
  const auto opened = open("/docs/F", "");
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->version(), first->version());
  // Another device within the same second, with as many bytes.
  standIn.write("/Docs/f", "other");
  ada->pollForChanges();
  const auto second = item("/Docs/f");
  EXPECT_NE(second->version(), first->version());
  EXPECT_EQ(second->id(), first->id());
  standIn.move("/Docs/f", "/Docs/g");
  ada->pollForChanges();
  EXPECT_EQ(item("/Docs/g")->id(), first->id());
  const auto late = open("/Docs/f", second->version());
  ASSERT_TRUE(late) << "a version can be opened where its file is no longer";
  const auto older = std::make_shared<KZVDropboxFS>(nullptr, ada->options());  // has no copy of it
  const auto replaced = bounded([&] { return older->openReader("/f", first->version(), nullptr, nullptr); });
  ASSERT_TRUE(replaced);
  standIn.remove("/Docs/g");
  ada->pollForChanges();
  EXPECT_EQ(all(*opened), "first");
  EXPECT_EQ(all(*late), "other");
  EXPECT_EQ(all(*replaced), "first");
  NSErrorRef error;
  EXPECT_FALSE(open("/Docs/f", "0123456789abcdef", &error));
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::notFound);
  EXPECT_FALSE(open("/Docs", "", &error));
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::isFolder);
  standIn.write("/Docs/empty", "");
  ada->pollForChanges();
  EXPECT_EQ(open("/Docs/empty", "")->size(), 0U);
}
