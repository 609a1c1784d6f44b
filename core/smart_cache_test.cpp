#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/KZVSmartCache.h"
#include "core/KZVSupport.h"

namespace {

namespace fs = std::filesystem;

/// A cache of 100 bytes over a folder of its own, with the words in which its users think.
class Desk {
 public:
  Desk() : folder_(fs::temp_directory_path() / ("kzv-cache-" + KZVSupport::uniquePathComponent())) {
    fs::create_directories(folder_);
  }
  ~Desk() {
    cache.reset();
    fs::remove_all(folder_);
  }
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;

  void write(const std::string& name, std::size_t bytes) {
    fs::create_directories((folder_ / name).parent_path());
    std::ofstream(folder_ / name) << std::string(bytes, 'x');
  }
  std::shared_ptr<NSURL> url(const std::string& name) const {
    return NSURL::fileURLWithPath((folder_ / name).string());
  }
  void store(const std::string& name, const std::string& key) { cache->setUrl(url(name), key); }
  /// A new file with one user.
  void download(const std::string& name, std::size_t bytes, const std::string& key) {
    fs::remove_all(folder_ / name);
    write(name, bytes);
    store(name, key);
  }
  std::string open(const std::string& key) {
    const auto found = cache->urlForKey(key);
    return found ? fs::path(found->path()).filename().string() : "";
  }
  void close(const std::string& name) { cache->releaseUrl(*url(name)); }
  std::string keyOf(const std::string& name) const {
    const auto key = cache->keyForUrl(*url(name));
    return key ? *key : "";
  }
  void removeBehindItsBack(const std::string& name) { fs::remove_all(folder_ / name); }
  /// The names directly in the folder, hidden ones included: a deletion leaves nothing.
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder_)) found.insert(entry.path().filename().string());
    return found;
  }

  std::unique_ptr<KZVSmartCache> cache = std::make_unique<KZVSmartCache>(100);

 private:
  const fs::path folder_;
};

using Names = std::set<std::string>;

/// Carries out the steps between semicolons, each a verb with what it takes; "-" stands for none.
void play(Desk& desk, const std::string& script) {
  using Words = std::vector<std::string>;
  const auto named = [](const std::string& word) { return word == "-" ? "" : word; };
  const std::map<std::string, std::function<void(const Words&)>> verbs = {
      {"get", [&](const Words& w) { desk.download(w.at(1), std::stoul(w.at(2)), w.at(3)); }},
      {"write", [&](const Words& w) { desk.write(w.at(1), std::stoul(w.at(2))); }},
      {"store", [&](const Words& w) { desk.store(w.at(1), w.at(2)); }},
      {"close", [&](const Words& w) { desk.close(w.at(1)); }},
      {"forget", [&](const Words& w) { desk.cache->invalidate(w.at(1)); }},
      {"vanish", [&](const Words& w) { desk.removeBehindItsBack(w.at(1)); }},
      {"end", [&](const Words&) { desk.cache.reset(); }},
      {"opens", [&](const Words& w) { EXPECT_EQ(desk.open(w.at(1)), named(w.at(2))); }},
      {"key", [&](const Words& w) { EXPECT_EQ(desk.keyOf(w.at(1)), named(w.at(2))); }},
      {"left", [&](const Words& w) { EXPECT_EQ(desk.names(), Names(w.begin() + 1, w.end())); }}};
  std::istringstream steps(script);
  for (std::string step; std::getline(steps, step, ';');) {
    SCOPED_TRACE(step);
    std::istringstream words(step);
    const Words all{std::istream_iterator<std::string>(words), {}};
    verbs.at(all.at(0))(all);
  }
}

TEST(SmartCache, KeepsCopiesThatAreInUseOrFitTheBudget) {
  struct Case {
    const char* name;
    const char* script;
  };
  const Case cases[] = {
      {"a held copy outlives the budget", "get a 500 /a; left a; opens /a a"},
      {"a released copy within the budget stays", "get a 100 /a; close a; left a; opens /a a"},
      {"a released copy larger than the budget goes", "get a 101 /a; close a; left; opens /a -"},
      {"two users need two releases", "get a 500 /a; opens /a a; close a; left a; opens /a a"},
      {"the least recently used goes first",
       "get a 50 /a; close a; get b 50 /b; close b; opens /a a; close a; get c 50 /c; close c;"
       "left a c; opens /b -; opens /a a"},
      {"a folder counts what is in it",
       "write folder/deep/x 60; write folder/y 41; store folder /folder; close folder; left; opens /folder "
       "-"},
      {"a folder within the budget stays",
       "write folder/deep/x 60; write folder/y 40; store folder /folder; close folder;"
       "left folder; opens /folder folder"},
      {"an invalidated copy without users goes at once", "get a 10 /a; close a; forget /a; left; opens /a -"},
      {"an invalidated copy that is held stays until its release",
       "get a 10 /a; forget /a; key a /a; left a; opens /a -; close a; key a -; left; opens /a -"},
      {"a replaced copy that is held stays until its release",
       "get old 10 /a; get new 10 /a; left new old; close old; left new; opens /a new"},
      {"keys are compared as given", "get a 10 /a; forget /A; left a; opens /A -; opens /a a"},
      {"a copy that vanished counts as absent", "get a 10 /a; close a; vanish a; left; opens /a -"},
      {"a second download to the path of a held, forgotten copy is kept until both are released",
       "get a 500 /a; forget /a; get a 20 /a; close a; opens /a a; close a; close a; left a; opens /a a"},
      {"a file that is being put at a forgotten copy's path is not deleted with the copy",
       "get a 10 /a; forget /a; vanish a; write a 20; close a; left a; store a /a; left a; opens /a a"},
      {"a path stored under another key leaves the first key",
       "get a 10 /a; store a /b; key a /b; left a; opens /a -; opens /b a"},
      {"a release too many is ignored",
       "get a 10 /a; close a; close a; close a; opens /a a; forget /a; left a; close a; left"},
      {"a file that the cache never held is left alone",
       "write a 10; close a; forget /a; left a; opens /a -"},
      {"its end deletes what nobody holds",
       "get held 10 /held; get free 10 /free; close free; end; left held"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Desk desk;
    play(desk, c.script);
  }
}

/// Several users open, read, invalidate and download again. Whatever happens, a file that somebody holds is
/// readable and whole, and in the end nothing lies about.
TEST(SmartCache, ManyThreadsNeverSeeAHeldCopyVanish) {
  Desk desk;
  constexpr int threads = 8;
  constexpr int rounds = 400;
  std::atomic<int> losses{0};
  std::atomic<int> served{0};
  std::atomic<int> names{0};
  const auto work = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < rounds; ++round) {
      const std::string key = "/k" + std::to_string(random() % 4);
      auto url = desk.cache->urlForKey(key);
      if (url) {
        ++served;
      } else {
        const std::string name = "f" + std::to_string(++names);
        desk.write(name, 30);
        url = desk.url(name);
        desk.cache->setUrl(url, key);
      }
      if (random() % 5 == 0) desk.cache->invalidate(key);
      std::error_code code;
      if (fs::file_size(url->path(), code) != 30 || code) ++losses;
      desk.cache->releaseUrl(*url);
    }
  };
  std::vector<std::thread> pool;
  for (unsigned seed = 1; seed <= threads; ++seed) pool.emplace_back(work, seed);
  for (auto& thread : pool) thread.join();
  EXPECT_EQ(losses, 0);
  EXPECT_GT(served, 0);
  EXPECT_LE(desk.names().size(), 3U);  // 100 bytes hold three copies of 30
  for (int key = 0; key < 4; ++key) desk.cache->invalidate("/k" + std::to_string(key));
  EXPECT_EQ(desk.names(), Names{});
}

}  // namespace
