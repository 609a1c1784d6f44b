// Our JSON reader and writer beside nlohmann-json, on texts of several shapes. Reading includes releasing
// what was read. Counters: the rate of JSON text, and for reading the cost of one value: live heap bytes
// (with malloc's own overhead, from mallinfo2) and calls of operator new.
#include <cstdlib>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <malloc.h>

#include "foundation/NSArray.h"
#include "foundation/NSDictionary.h"
#include "json/QJJsonParser.h"
#include "json/QJJsonWriter.h"

namespace {
std::size_t newCalls = 0;  // one thread only
}

// Not inlined: the compiler would take malloc and free for a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++newCalls;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

/// A folder listing as the service gives it: `count` items of some 330 bytes.
std::string listing(std::size_t count) {
  std::string text = R"({"hash":"37eb1ba1849d4b0fb0b28caf7ef3af52","bytes":0,"path":"/Photos","is_dir":true,)"
                     R"("icon":"folder","root":"dropbox","contents":[)";
  const char* const names[] = {"Summer holidays", "Größenverhältnis", "invoice \\\"final\\\"", "IMG",
                               "résumé"};
  for (std::size_t at = 0; at < count; ++at) {
    if (at > 0) text += ',';
    text += fmt::format(
        R"({{"size":"{:.1f} KB","rev":"{:x}0d34a","thumb_exists":{},"bytes":{},"ratio":{}.{:02},)"
        R"("modified":"Mon, {:02} Apr 2024 {:02}:45:54 +0000","client_mtime":"Mon, {:02} Apr 2024 01:45:54 +0000",)"
        R"("path":"/Photos/{} {}.jpg","is_dir":false,"icon":"page_white_picture","root":"dropbox",)"
        R"("mime_type":"image/jpeg","parent_shared_folder_id":null,"revision":{}}})",
        static_cast<double>(at % 5000) / 7, at * 7919, at % 3 == 0, at * 1237, at % 10, at % 100, at % 28 + 1,
        at % 24, at % 28 + 1, names[at % 5], at, at % 400);
  }
  return text + "]}";
}

/// `count` items, separated by commas.
template <class Item>
std::string list(std::size_t count, Item item) {
  std::string text;
  for (std::size_t at = 0; at < count; ++at) text += (at > 0 ? "," : "") + item(at);
  return text;
}

std::string coordinates(std::size_t count) {
  return "[" +
         list(count,
              [](std::size_t at) {
                return fmt::format("[{}.{:07},-{}.{:06}]", at % 90, at * 104'729 % 9'999'991, at % 180,
                                   at * 7919 % 999'983);
              }) +
         "]";
}

std::string integers(std::size_t count) {
  return "[" + list(count, [](std::size_t at) { return std::to_string(at * at * 7919 % 10'000'000'019); }) +
         "]";
}

std::string uniqueKeys(std::size_t count) {
  return "{" +
         list(count,
              [](std::size_t at) {
                return fmt::format(R"("{:x}/IMG_{:05}.jpg":{})", at * 2'654'435'761 % 4'294'967'291, at,
                                   at % 1000);
              }) +
         "}";
}

std::string escapes(std::size_t count) {
  return "[" +
         list(count,
              [](std::size_t at) {
                return fmt::format(R"("C:\\Users\\{}\tline \"{}\"\nGr\u00f6\u00dfe \u20ac {}\n")", at,
                                   at * 7919, at % 7);
              }) +
         "]";
}

enum Shape : std::int64_t {
  listingShape,
  smallListingShape,
  coordinatesShape,
  integersShape,
  uniqueKeysShape,
  escapesShape
};

const std::string& textOf(Shape shape) {
  static const std::string texts[] = {listing(2'000),   listing(5),         coordinates(12'000),
                                      integers(30'000), uniqueKeys(10'000), escapes(6'000)};
  return texts[shape];
}

std::size_t liveHeapBytes() {
  const auto heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

std::size_t countValues(const NSObject& value) {
  std::size_t count = 1;
  if (const auto* array = as<NSArray>(&value)) {
    for (const id& item : array->items()) count += countValues(*item);
  } else if (const auto* dictionary = as<NSDictionary>(&value)) {
    for (const auto& [key, item] : dictionary->entries()) count += countValues(*item);
  }
  return count;
}

std::size_t valuesIn(const std::string& text) { return countValues(*QJJsonParser().objectWithString(text)); }

struct Kzv {
  using Document = id;
  static Document read(const std::string& text) { return QJJsonParser().objectWithString(text); }
  static std::size_t write(const Document& document) {
    return QJJsonWriter().stringWithObject(document)->size();
  }
};

struct Nlohmann {
  using Document = nlohmann::json;
  static Document read(const std::string& text) { return nlohmann::json::parse(text); }
  static std::size_t write(const Document& document) { return document.dump().size(); }
};

template <class Library>
void reportMemory(benchmark::State& state, const std::string& text) {
  // Enough copies to make the memory that malloc keeps in reserve negligible.
  const std::size_t copies = 1 + 4'000'000 / text.size();
  const auto values = static_cast<double>(valuesIn(text) * copies);
  std::vector<typename Library::Document> documents;
  documents.reserve(copies);
  const std::size_t heapBefore = liveHeapBytes();
  const std::size_t callsBefore = newCalls;
  for (std::size_t copy = 0; copy < copies; ++copy) documents.push_back(Library::read(text));
  state.counters["newPerValue"] = static_cast<double>(newCalls - callsBefore) / values;
  state.counters["heapBytesPerValue"] = static_cast<double>(liveHeapBytes() - heapBefore) / values;
}

template <class Library>
void JsonRead(benchmark::State& state) {
  const std::string& text = textOf(static_cast<Shape>(state.range(0)));
  reportMemory<Library>(state, text);
  for (auto _ : state) {
    auto document = Library::read(text);
    benchmark::DoNotOptimize(document);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

template <class Library>
void JsonWrite(benchmark::State& state) {
  const std::string& text = textOf(static_cast<Shape>(state.range(0)));
  const auto document = Library::read(text);
  for (auto _ : state) benchmark::DoNotOptimize(Library::write(document));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

const bool areRegistered = [] {
  const std::pair<const char*, Shape> shapes[] = {
      {"listing", listingShape},   {"smallListing", smallListingShape}, {"coordinates", coordinatesShape},
      {"integers", integersShape}, {"uniqueKeys", uniqueKeysShape},     {"escapes", escapesShape}};
  const std::pair<const char*, void (*)(benchmark::State&)> functions[] = {
      {"JsonRead/{}/kzv", JsonRead<Kzv>},
      {"JsonRead/{}/nlohmann", JsonRead<Nlohmann>},
      {"JsonWrite/{}/kzv", JsonWrite<Kzv>},
      {"JsonWrite/{}/nlohmann", JsonWrite<Nlohmann>}};
  for (const auto& [shapeName, shape] : shapes) {
    for (const auto& [name, function] : functions) {
      benchmark::RegisterBenchmark(fmt::format(fmt::runtime(name), shapeName).c_str(), function)
          ->Arg(shape)
          ->Unit(benchmark::kMicrosecond);
    }
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
