// Transfers of one large file beside the program curl, which moves the same bytes to and from the same
// stand-in while sha256sum reads them; and folders of a thousand small files through the host's batch copy.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <benchmark/benchmark.h>

#include "benchmarks/Account.h"
#include "benchmarks/Paired.h"
#include "core/copy/KZVLocalFS.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t gibibyte = 1ULL << 30;
constexpr int pieces = 8;  // curl sends 128 MiB a request: the service takes at most 150

std::string localPath(const std::string& name) { return Account::shared().folder() + "/" + name; }

void writeRandomFile(const std::string& path, std::uint64_t sizeBytes) {
  std::ifstream random("/dev/urandom", std::ios::binary);
  std::ofstream file(path, std::ios::binary);
  std::string block(1 << 20, '\0');
  for (std::uint64_t written = 0; written < sizeBytes; written += block.size()) {
    block.resize(std::min<std::uint64_t>(block.size(), sizeBytes - written));
    random.read(block.data(), static_cast<std::streamsize>(block.size()));
    file << block;
  }
}

/// The file that both sides send, and its pieces for curl.
const std::string& largeFile() {
  static const std::string path = [] {
    std::string made = localPath("large");
    writeRandomFile(made, gibibyte);
    std::ifstream whole(made, std::ios::binary);
    std::string piece(gibibyte / pieces, '\0');
    for (int number = 0; number < pieces; ++number) {
      whole.read(piece.data(), static_cast<std::streamsize>(piece.size()));
      std::ofstream(made + "." + std::to_string(number), std::ios::binary) << piece;
    }
    return made;
  }();
  return path;
}

void shell(const std::string& script) { check(std::system(("bash -c '" + script + "'").c_str()) == 0); }

std::string curl(const std::string& route, const std::string& argument, const std::string& rest) {
  return "curl -sSf -X POST -H \"Authorization: Bearer ada-token\" -H \"Content-Type: "
         "application/octet-stream\" -H \"" +
         argument + "\" " + rest + " " + Account::shared().standIn().url() + "/2/files/" + route;
}

void peerUpload() {
  std::ostringstream script;
  script << "set -e; sha256sum " << largeFile() << " >/dev/null & hash=$!; session=$("
         << curl("upload_session/start", "Dropbox-API-Arg: {}", "-T " + largeFile() + ".0")
         << " | sed \"s/.*session_id\\\": *\\\"//;s/\\\".*//\"); ";
  for (int number = 1; number < pieces; ++number) {
    const std::string cursor = "{\\\"cursor\\\":{\\\"session_id\\\":\\\"$session\\\",\\\"offset\\\":" +
                               std::to_string(gibibyte / pieces * static_cast<unsigned>(number)) + "}}";
    script << curl("upload_session/append_v2", "Dropbox-API-Arg: " + cursor,
                   "-o /dev/null -T " + largeFile() + "." + std::to_string(number))
           << "; ";
  }
  const std::string commit =
      "{\\\"cursor\\\":{\\\"session_id\\\":\\\"$session\\\",\\\"offset\\\":" + std::to_string(gibibyte) +
      "},\\\"commit\\\":{\\\"path\\\":\\\"/peer\\\",\\\"mode\\\":\\\"overwrite\\\"}}";
  script << curl("upload_session/finish", "Dropbox-API-Arg: " + commit, "-o /dev/null") << "; wait $hash";
  shell(script.str());
}

void peerDownload() {
  const std::string out = localPath("peer-download");
  shell("set -e; sha256sum " + largeFile() + " >/dev/null & hash=$!; " +
        curl("download", "Dropbox-API-Arg: {\\\"path\\\":\\\"/large\\\"}", "-o " + out) +
        "; wait $hash; rm " + out);
}

std::uint64_t statusKilobytes(const char* field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field))
      return std::strtoull(line.c_str() + line.find_first_of("0123456789"), nullptr, 10);
  }
  return 0;
}

/// How much the process grew at its peak while `work` ran.
double growthMegabytes(const std::function<void()>& work) {
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again from here
  const auto before = statusKilobytes("VmRSS");
  work();
  return static_cast<double>(statusKilobytes("VmHWM") - before) / 1024;
}

void upload(KZVDropboxFS& volume) {
  NSErrorRef error;
  check(volume.writeFile(*NSURL::fileURLWithPath(largeFile()), "/large", nullptr, &error));
}

void BM_Upload1GiB(benchmark::State& state) {
  largeFile();
  Paired pairs(state);
  for (auto _ : state) {
    const auto volume = Account::shared().coldInstance();
    volume->removeItemAtPath("/large", nullptr);
    double growth = 0;
    pairs.iterate([&] { growth = growthMegabytes([&] { upload(*volume); }); }, peerUpload);
    state.counters["growth_MB"] = growth;
  }
  pairs.report();
}
BENCHMARK(BM_Upload1GiB)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_Download1GiB(benchmark::State& state) {
  if (!Account::shared().coldInstance()->isExists("/large")) upload(*Account::shared().coldInstance());
  Paired pairs(state);
  for (auto _ : state) {
    const auto volume = Account::shared().coldInstance();
    double growth = 0;
    std::shared_ptr<NSURL> copy;
    pairs.iterate(
        [&] { growth = growthMegabytes([&] { copy = volume->requestFileUrl("/large", nullptr, nullptr); }); },
        peerDownload);
    check(copy != nullptr);
    volume->releaseFileUrl(*copy);
    state.counters["growth_MB"] = growth;
  }
  pairs.report();
}
BENCHMARK(BM_Download1GiB)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

/// A thousand files of 10 KiB in and out again, with every answer delayed by 50 ms. What the large transfers
/// left goes first: it fills the account.
void BM_ThousandFiles(benchmark::State& state) {
  const bool isOut = state.range(0) == 1;
  const std::string folder = localPath("thousand");
  if (!fs::exists(folder)) {
    fs::create_directory(folder);
    for (int number = 0; number < 1000; ++number)
      writeRandomFile(folder + "/" + std::to_string(number), 10'240);
  }
  Account& account = Account::shared();
  for (const char* large : {"/large", "/peer"}) account.coldInstance()->removeItemAtPath(large, nullptr);
  const auto putAll = [&](const std::string& path) {
    NSErrorRef error;
    const bool isSent = KZVLocalFS::shared().sendFiles(KZVBatchId(), folder, account.coldInstance(), path,
                                                       nullptr, nullptr, nullptr, &error);
    if (!isSent) throw std::runtime_error(error ? error->description() : "no error");
  };
  if (isOut) putAll("/thousand-out");
  account.standIn().fault({{"route", "*"}, {"times", 1'000'000}, {"delay_ms", 50}});
  int round = 0;
  for (auto _ : state) {
    const std::string name = std::to_string(round++);
    const auto work = [&] {
      if (!isOut) return putAll("/thousand-in-" + name);
      NSErrorRef error;
      const auto volume = account.coldInstance();
      check(KZVLocalFS::shared().writeFiles(KZVBatchId(), {std::make_shared<FSItem>("/thousand-out", volume)},
                                            localPath("out-" + name), nullptr, nullptr, nullptr, &error));
    };
    state.SetIterationTime(Paired::seconds(work));
  }
  account.standIn().clearFaults();
}
BENCHMARK(BM_ThousandFiles)
    ->ArgName("out")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
