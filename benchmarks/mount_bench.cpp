// A mounted volume, with every answer of the service delayed by 50 ms, beside programs that do the same
// without one: the same commands on a folder of the local disk, and for large files curl with the same
// service while sha256sum reads the bytes. Each row tells the requests made and the least that the service's
// API and the plug-in's own rules (a folder is its record and its listing) allow.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include <benchmark/benchmark.h>

#include "benchmarks/Paired.h"
#include "testing/StandIn.h"
#include "testing/TemporaryFolder.h"

namespace {

constexpr int answerDelayMilliseconds = 50;

void check(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("the benchmark did not do what it measures: ") + what);
}

void shell(const std::string& line) { check(std::system(line.c_str()) == 0, line.c_str()); }

/// The service, a home with Ada's account linked, and the same trees on the local disk.
struct Places {
  Places() {
    setenv("KZV_HOME", home.path().c_str(), 1);
    setenv("KZV_TOKEN_STORE", "file", 1);
    setenv("KZV_SERVICE_URL", standIn.url().c_str(), 1);
    setenv("KZV_BUNDLE", KZV_BUNDLE_PATH, 1);
    setenv("SERVICE", standIn.url().c_str(), 1);
    setenv("LOCAL", local.path().c_str(), 1);
    setenv("KZV_POLL_SECONDS", "3600", 1);  // only what is measured makes requests
    ChildProcess::run({KZV_PROGRAM, "link", "--token-stdin"}, {}, "ada-token\n");
    standIn.makeTree("/ten", 0, 10'000);
    standIn.makeTree("/twenty", 0, 20'000);
    standIn.makeTree("/wide", 200, 5);
    standIn.write("/d/small", std::string(1000, 's'));
    shell(
        "cd $LOCAL && mkdir ten wide d && (cd ten && seq 10000 | xargs touch) && head -c 1000 /dev/zero "
        ">d/small && "
        "for i in $(seq 200); do mkdir wide/$i; touch wide/$i/1 wide/$i/2 wide/$i/3 wide/$i/4 wide/$i/5; "
        "done && "
        "head -c 268435456 /dev/urandom >d/large");
    standIn.fault({{"route", "*"}, {"times", 0}, {"delay_ms", answerDelayMilliseconds}});
  }
  static Places& shared() {
    static Places places;
    return places;
  }
  TemporaryFolder home;
  TemporaryFolder mountpoint;
  TemporaryFolder local;
  StandIn standIn;
};

/// A mount that has just begun.
class Mount {
 public:
  Mount()
      : process_(
            {KZV_PROGRAM, "mount", "--foreground", "--ready-fd", "1", Places::shared().mountpoint.path()}) {
    check(process_.readLine(std::chrono::seconds(20)).has_value(), "mount");
  }
  ~Mount() {
    process_.signal(SIGTERM);
    process_.finish(std::chrono::seconds(20));
  }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  double residentMegabytes() const {
    std::ifstream status("/proc/" + std::to_string(process_.pid()) + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with("VmRSS:")) return std::strtod(line.c_str() + 6, nullptr) / 1024;
    return 0;
  }

 private:
  ChildProcess process_;
};

/// One row: `work` in the mounted folder after `before`; then `peer` in the same folder of the local disk.
struct Row {
  const char* name;
  int least;
  const char* before;
  const char* work;
  const char* peer;
};

#define KZV_CURL \
  "curl -sSf -X POST -H 'Authorization: Bearer ada-token' -H 'Content-Type: application/octet-stream' "
const Row rows[] = {
    {"ls_10000", 7, "true", "ls -la ten >/dev/null", "ls -la ten >/dev/null"},
    {"ls_10000_again", 0, "ls -la ten >/dev/null", "ls -la ten >/dev/null", "ls -la ten >/dev/null"},
    {"find_201_folders", 402, "true", "find wide >/dev/null", "find wide >/dev/null"},
    {"find_201_folders_again", 0, "find wide >/dev/null", "find wide >/dev/null", "find wide >/dev/null"},
    {"read_small", 1, "true", "cat d/small >/dev/null", "cat d/small >/dev/null"},
    {"write_small", 1, "rm -f d/new", "cp /etc/passwd d/new", "cp /etc/passwd d/new"},
    {"mkdir", 2, "true", "mkdir d/sub.$$", "mkdir d/sub.$$"},
    {"rename", 1, "rm -f d/b; cp /etc/passwd d/a", "mv d/a d/b", "cp /etc/passwd d/a && mv d/a d/b"},
    {"delete", 1, "cp /etc/passwd d/b", "rm d/b", "cp /etc/passwd d/b && rm d/b"},
    {"space", 2, "true", "df . >/dev/null", "df . >/dev/null"},
    // 16 chunks of 16 MiB and what makes them a file; curl sends two pieces, since the service takes 150 MiB.
    {"write_256_MiB", 17, "rm -f d/large", "cp $LOCAL/d/large d/large",
     "sha256sum d/large >/dev/null & session=$(head -c 134217728 d/large | " KZV_CURL
     "-H 'Dropbox-API-Arg: {}' --data-binary @- $SERVICE/2/files/upload_session/start | "
     "sed 's/.*session_id\": *\"//;s/\".*//') && tail -c 134217728 d/large | " KZV_CURL
     "-H 'Dropbox-API-Arg: {\"cursor\":{\"session_id\":\"'$session'\",\"offset\":134217728}}' --data-binary "
     "@- "
     "$SERVICE/2/files/upload_session/append_v2 >/dev/null && " KZV_CURL
     "-H 'Dropbox-API-Arg: {\"cursor\":{\"session_id\":\"'$session'\",\"offset\":268435456},"
     "\"commit\":{\"path\":\"/peer\",\"mode\":\"overwrite\"}}' "
     "$SERVICE/2/files/upload_session/finish >/dev/null && wait"},
    {"read_256_MiB", 1, "test -e d/large || cp $LOCAL/d/large d/large; ls d >/dev/null",
     "cat d/large >/dev/null",
     "sha256sum d/large >/dev/null & " KZV_CURL
     "-H 'Dropbox-API-Arg: {\"path\":\"/d/large\"}' $SERVICE/2/files/download >/dev/null && wait"},
};

/// How long the line takes in `folder`.
double seconds(const std::string& folder, const std::string& line) {
  return Paired::seconds([&] { shell("cd " + folder + " && { " + line + "; }"); });
}

void run(benchmark::State& state, const Row& row) {
  Places& places = Places::shared();
  Paired pairs(state);
  for (auto _ : state) {
    const Mount mount;
    seconds(places.mountpoint.path(), std::string("ls -la . d >/dev/null && { ") + row.before + "; }");
    places.standIn.forgetRequests();
    const double ours = seconds(places.mountpoint.path(), row.work);
    int requests = 0;
    for (const auto& [route, count] : places.standIn.requests()) requests += count;
    state.counters["requests"] = requests;
    pairs.add(ours, seconds(places.local.path(), row.peer));
  }
  state.counters["least"] = row.least;
  pairs.report();
}

void runMemory(benchmark::State& state) {
  for (auto _ : state) {
    const Mount mount;
    const double before = mount.residentMegabytes();
    state.SetIterationTime(seconds(Places::shared().mountpoint.path(), "ls -la twenty >/dev/null"));
    state.counters["growth_MB"] = mount.residentMegabytes() - before;
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const auto add = [](const std::string& name, const std::function<void(benchmark::State&)>& measure) {
    benchmark::RegisterBenchmark(("Mount/" + name).c_str(), measure)
        ->UseManualTime()
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
  };
  for (const Row& row : rows) add(row.name, [&row](benchmark::State& state) { run(state, row); });
  add("memory_20000_entries", runMemory);
  benchmark::RunSpecifiedBenchmarks();
}
