// Listing and reading attributes, beside the least that the same answers cost: a bare keep-alive libcurl
// handle and Boost.JSON. One stand-in serves both.
#include <atomic>
#include <boost/json.hpp>
#include <stdexcept>
#include <thread>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include "benchmarks/Account.h"
#include "benchmarks/Paired.h"
#include "core/synced.h"

namespace json = boost::json;

namespace {

constexpr int entries = 10'000;
constexpr const char* folder = "/big";

/// The bare way, in the same process: one keep-alive connection, each answer parsed.
class BareClient {
 public:
  json::value call(const std::string& route, const json::value& argument) {
    const auto answer =
        http_.post(Account::shared().standIn().url() + "/2/" + route, json::serialize(argument),
                   {"Content-Type: application/json", "Authorization: Bearer ada-token"});
    if (answer.status != 200) throw std::runtime_error(answer.body);
    return json::parse(answer.body);
  }
  std::size_t list() {
    json::value page = call("files/list_folder", {{"path", folder}, {"limit", 2000}});
    std::size_t count = page.at("entries").as_array().size();
    while (page.at("has_more").as_bool()) {
      page = call("files/list_folder/continue", {{"cursor", page.at("cursor")}});
      count += page.at("entries").as_array().size();
    }
    return count;
  }

 private:
  HttpClient http_;
};

/// The account with its folder of 10,000 files and nothing else.
Account& account() {
  static Account& filled = [&]() -> Account& {
    Account::shared().standIn().makeTree(folder, 0, entries);
    return Account::shared();
  }();
  return filled;
}

void BM_ListCold(benchmark::State& state) {
  BareClient bare;
  Paired pairs(state);
  for (auto _ : state) {
    const auto instance = account().coldInstance();
    pairs.iterate([&] { check(instance->contentAtPath(folder, false, true, nullptr)->size() == entries); },
                  [&] { check(bare.list() == entries); });
  }
  pairs.report();
}
BENCHMARK(BM_ListCold)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

void BM_ListWarm(benchmark::State& state) {
  Paired pairs(state);
  for (auto _ : state) {
    const auto instance = account().cachingInstance();
    const auto list = [&] {
      check(instance->contentAtPath(folder, false, true, nullptr)->size() == entries);
    };
    const double coldSeconds = Paired::seconds(list);
    pairs.add(Paired::seconds(list), coldSeconds);
  }
  pairs.report();
}
BENCHMARK(BM_ListWarm)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

/// Attribute calls on warm records, spread over the folder; returns calls a second of all threads together.
double attributeRate(KZVDropboxFS& instance, const std::vector<std::string>& paths, int threads,
                     int callsPerThread) {
  std::atomic<int> ready = 0;
  std::vector<std::thread> hosts;
  const auto work = [&](std::size_t offset) {
    ++ready;
    while (ready < threads) std::this_thread::yield();
    for (std::size_t call = 0; call < static_cast<std::size_t>(callsPerThread); ++call) {
      check(instance.attributesAtPath(paths[(offset + call * 17) % paths.size()], nullptr) != nullptr);
    }
  };
  const auto start = std::chrono::steady_clock::now();
  for (int thread = 0; thread < threads; ++thread)
    hosts.emplace_back(work, static_cast<std::size_t>(thread) * 577);
  for (std::thread& host : hosts) host.join();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  return threads * callsPerThread / elapsed.count();
}

void BM_Attributes(benchmark::State& state) {
  const auto instance = account().cachingInstance();
  std::vector<std::string> paths;
  const auto items = instance->contentAtPath(folder, false, true, nullptr);
  for (const auto& item : *items) paths.push_back(item->path());
  constexpr int calls = 160'000;
  std::vector<double> single;
  std::vector<double> ratio;
  for (auto _ : state) {
    single.push_back(attributeRate(*instance, paths, 1, calls));
    ratio.push_back(attributeRate(*instance, paths, 16, calls / 16) / single.back());
    state.SetIterationTime(calls / single.back());
  }
  state.counters["ns_per_call_1_thread"] = 1e9 / Paired::median(single);
  state.counters["rate_16_threads_to_1"] = Paired::median(ratio);
}
BENCHMARK(BM_Attributes)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

/// One small request: the listing of a root that holds one folder.
void BM_BlockingCall(benchmark::State& state) {
  BareClient bare;
  const auto delayMs = state.range(0);
  if (delayMs > 0) {
    account().standIn().fault({{"route", "files/list_folder"}, {"times", 1'000'000}, {"delay_ms", delayMs}});
  }
  const auto manager = account().coldManager();
  Paired pairs(state);
  const json::value argument = {{"path", ""}, {"limit", 2000}};
  for (auto _ : state) {
    synced(*manager->metaCache, [&] { manager->metaCache->removeAll(); });
    pairs.iterate([&] { check(manager->metadata("/") != nullptr); },
                  [&] { check(bare.call("files/list_folder", argument).is_object()); });
  }
  pairs.report();
  account().standIn().clearFaults();
}
BENCHMARK(BM_BlockingCall)
    ->ArgName("delay_ms")
    ->Arg(0)
    ->UseManualTime()
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlockingCall)
    ->ArgName("delay_ms")
    ->Arg(10)
    ->UseManualTime()
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);

/// A million records as a listing leaves them: 1,000 folders of 1,000 files with the service's long
/// revisions.
void BM_CacheMemory(benchmark::State& state) {
  constexpr int folders = 1000;
  constexpr int files = 1000;
  for (auto _ : state) {
    const auto before = mallinfo2().uordblks + mallinfo2().hblkhd;
    MetadataCache cache;
    cache.startKeeping();
    for (int folderNumber = 0; folderNumber < folders; ++folderNumber) {
      const auto path = std::make_shared<const std::string>("/Documents/Projects/Folder number " +
                                                            std::to_string(folderNumber));
      for (int fileNumber = 0; fileNumber < files; ++fileNumber) {
        DBMetadata::Fields fields;
        fields.folderPath = path;
        fields.name = "A file with a usual name " + std::to_string(fileNumber) + ".txt";
        fields.lowercasePath = MetadataCache::keyOf(*path + "/" + fields.name);
        fields.rev = "015f00aa11bb2cc330000000012d3e4";
        fields.totalBytes = fileNumber;
        fields.lastModifiedDate = NSDate::Time(std::chrono::seconds(1'700'000'000 + fileNumber));
        auto record = std::make_shared<DBMetadata>(std::move(fields));
        const std::string key = MetadataCache::keyOf(*record);
        cache.store(key, std::move(record));
      }
    }
    const auto after = mallinfo2().uordblks + mallinfo2().hblkhd;
    state.counters["bytes_per_record"] = static_cast<double>(after - before) / (folders * files);
  }
}
BENCHMARK(BM_CacheMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
