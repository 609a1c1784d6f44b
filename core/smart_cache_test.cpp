#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
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

TEST(SmartCache, KeepsCopiesThatAreInUseOrFitTheBudget) {
  struct Case {
    const char* name;
    std::function<void(Desk&)> steps;
    Names left;
    std::vector<std::pair<std::string, std::string>> opens;  // key -> file name served, or "" for none
  };
  const Case cases[] = {
      {"a held copy outlives the budget",
       [](Desk& desk) { desk.download("a", 500, "/a"); },
       {"a"},
       {{"/a", "a"}}},
      {"a released copy within the budget stays",
       [](Desk& desk) {
         desk.download("a", 100, "/a");
         desk.close("a");
       },
       {"a"},
       {{"/a", "a"}}},
      {"a released copy larger than the budget goes",
       [](Desk& desk) {
         desk.download("a", 101, "/a");
         desk.close("a");
       },
       {},
       {{"/a", ""}}},
      {"two users need two releases",
       [](Desk& desk) {
         desk.download("a", 500, "/a");
         EXPECT_EQ(desk.open("/a"), "a");
         desk.close("a");
       },
       {"a"},
       {{"/a", "a"}}},
      {"the least recently used goes first",
       [](Desk& desk) {
         for (const char* name : {"a", "b"}) {
           desk.download(name, 50, std::string("/") + name);
           desk.close(name);
         }
         EXPECT_EQ(desk.open("/a"), "a");  // now "b" is the older one
         desk.close("a");
         desk.download("c", 50, "/c");
         desk.close("c");
       },
       {"a", "c"},
       {{"/b", ""}, {"/a", "a"}}},
      {"a folder counts what is in it",
       [](Desk& desk) {
         desk.write("folder/deep/x", 60);
         desk.write("folder/y", 41);
         desk.store("folder", "/folder");
         desk.close("folder");
       },
       {},
       {{"/folder", ""}}},
      {"a folder within the budget stays",
       [](Desk& desk) {
         desk.write("folder/deep/x", 60);
         desk.write("folder/y", 40);
         desk.store("folder", "/folder");
         desk.close("folder");
       },
       {"folder"},
       {{"/folder", "folder"}}},
      {"an invalidated copy without users goes at once",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         desk.close("a");
         desk.cache->invalidate("/a");
       },
       {},
       {{"/a", ""}}},
      {"an invalidated copy that is held stays until its release",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         desk.cache->invalidate("/a");
         EXPECT_EQ(desk.keyOf("a"), "/a");
         EXPECT_EQ(desk.names(), Names{"a"});
         EXPECT_EQ(desk.open("/a"), "");
         desk.close("a");
         EXPECT_EQ(desk.keyOf("a"), "");
       },
       {},
       {{"/a", ""}}},
      {"a replaced copy that is held stays until its release",
       [](Desk& desk) {
         desk.download("old", 10, "/a");
         desk.download("new", 10, "/a");
         EXPECT_EQ(desk.names(), (Names{"old", "new"}));
         desk.close("old");
       },
       {"new"},
       {{"/a", "new"}}},
      {"keys are compared as given",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         desk.cache->invalidate("/A");
       },
       {"a"},
       {{"/A", ""}, {"/a", "a"}}},
      {"a copy that vanished counts as absent",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         desk.close("a");
         desk.removeBehindItsBack("a");
       },
       {},
       {{"/a", ""}}},
      {"a second download to the path of a held, forgotten copy is kept until both are released",
       [](Desk& desk) {
         desk.download("a", 500, "/a");
         desk.cache->invalidate("/a");
         desk.download("a", 20, "/a");
         desk.close("a");
         EXPECT_EQ(desk.open("/a"), "a");
         desk.close("a");
         desk.close("a");
       },
       {"a"},
       {{"/a", "a"}}},
      {"a file that is being put at a forgotten copy's path is not deleted with the copy",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         desk.cache->invalidate("/a");
         desk.removeBehindItsBack("a");
         desk.write("a", 20);  // the second download has written its file but not stored it yet
         desk.close("a");
         EXPECT_EQ(desk.names(), Names{"a"});
         desk.store("a", "/a");
       },
       {"a"},
       {{"/a", "a"}}},
      {"a path stored under another key leaves the first key",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         desk.store("a", "/b");
         EXPECT_EQ(desk.keyOf("a"), "/b");
       },
       {"a"},
       {{"/a", ""}, {"/b", "a"}}},
      {"a release too many is ignored",
       [](Desk& desk) {
         desk.download("a", 10, "/a");
         for (int i = 0; i < 3; ++i) desk.close("a");
         EXPECT_EQ(desk.open("/a"), "a");
         desk.cache->invalidate("/a");
         EXPECT_EQ(desk.names(), Names{"a"});
         desk.close("a");
       },
       {},
       {}},
      {"a file that the cache never held is left alone",
       [](Desk& desk) {
         desk.write("a", 10);
         desk.close("a");
         desk.cache->invalidate("/a");
       },
       {"a"},
       {{"/a", ""}}},
      {"its end deletes what nobody holds",
       [](Desk& desk) {
         desk.download("held", 10, "/held");
         desk.download("free", 10, "/free");
         desk.close("free");
         desk.cache.reset();
       },
       {"held"},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Desk desk;
    c.steps(desk);
    EXPECT_EQ(desk.names(), c.left);
    for (const auto& [key, served] : c.opens) EXPECT_EQ(desk.open(key), served) << key;
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
