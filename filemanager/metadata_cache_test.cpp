#include <algorithm>
#include <cstddef>
#include <mutex>
#include <new>
#include <set>

#include <gtest/gtest.h>

#include "core/synced.h"
#include "filemanager/MetadataCache.h"

namespace {

MetadataCache::Record file(const std::string& path) {
  DBMetadata::Fields fields;
  fields.path = path;
  fields.rev = "015f00aa1";
  return std::make_shared<DBMetadata>(fields);
}

MetadataCache::Record folder(const std::string& path) {
  DBMetadata::Fields fields;
  fields.path = path;
  fields.isDirectory = true;
  return std::make_shared<DBMetadata>(fields);
}

/// The cache of a small account; every test runs under its lock, as its users do.
class MetadataCacheTest : public testing::Test {
 protected:
  MetadataCacheTest() : held(ObjectExtension::of(cache).monitor()) {
    cache.startKeeping();
    cache.store("/", folder("/"));
    for (const char* path : {"/a", "/a/b", "/ab"}) cache.store(path, folder(path));
    for (const char* path : {"/x", "/a/y", "/a/b/z", "/ab/w", "/a b"}) cache.store(path, file(path));
  }
  std::set<std::string> present() {
    std::set<std::string> keys;
    for (const char* key : {"/", "/a", "/a/b", "/ab", "/x", "/a/y", "/a/b/z", "/ab/w", "/a b"}) {
      if (cache.find(key)) keys.insert(key);
    }
    return keys;
  }
  MetadataCache cache;
  std::lock_guard<Monitor> held;
};

}  // namespace

TEST_F(MetadataCacheTest, RemovalTakesWhatItSaysAndNothingElse) {
  struct Case {
    const char* name;
    const char* removed;
    std::set<std::string> files;
    std::set<std::string> left;
  };
  const Case cases[] = {
      {"folder with sub-folder, not its namesakes",
       "/a",
       {"/a/y", "/a/b/z"},
       {"/", "/ab", "/x", "/ab/w", "/a b"}},
      {"file", "/ab/w", {"/ab/w"}, {"/", "/ab", "/x", "/a b"}},
      {"absent", "/none", {}, {"/", "/ab", "/x", "/a b"}},
      {"everything", "/", {"/x", "/a b"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto files = cache.removeSubtree(c.removed);
    EXPECT_EQ(std::set<std::string>(files.begin(), files.end()), c.files);
    EXPECT_EQ(present(), c.left);
    EXPECT_EQ(cache.count(), c.left.size());
  }
}

TEST_F(MetadataCacheTest, RemovingOneRecordKeepsWhatIsBelowIt) {
  cache.remove("/a");
  EXPECT_EQ(cache.find("/a"), nullptr);
  EXPECT_NE(cache.find("/a/b/z"), nullptr);
}

TEST_F(MetadataCacheTest, AnAnswerOvertakenByAChangeIsNotKept) {
  struct Case {
    const char* name;
    const char* fetched;
    void (*change)(MetadataCache&);
    bool isKept;
  };
  const Case cases[] = {
      {"nothing happened", "/a", [](MetadataCache&) {}, true},
      {"its own record dropped", "/a", [](MetadataCache& c) { c.remove("/a"); }, false},
      {"another record dropped", "/a", [](MetadataCache& c) { c.remove("/ab"); }, true},
      {"a folder above it dropped", "/a/b", [](MetadataCache& c) { c.removeSubtree("/a"); }, false},
      {"a namesake's subtree dropped", "/ab", [](MetadataCache& c) { c.removeSubtree("/a"); }, true},
      {"all dropped", "/x", [](MetadataCache& c) { c.removeAll(); }, false},
      {"a record never seen, dropped", "/new", [](MetadataCache& c) { c.remove("/new"); }, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto fetch = cache.beginFetch(c.fetched);
    const auto other = cache.beginFetch("/elsewhere");
    c.change(cache);
    EXPECT_EQ(cache.endFetch(fetch), c.isKept);
    EXPECT_EQ(cache.endFetch(other), std::string_view(c.name) != "all dropped");
  }
}

TEST_F(MetadataCacheTest, OfATreeWhatAChangeHasOvertakenIsNotKept) {
  const auto listed = [](const std::string& path, MetadataCache::Record child = nullptr) {
    DBMetadata::Fields fields = folder(path)->fields();
    auto contents = std::make_shared<DBMetadata::Contents>();
    if (child) contents->push_back(std::move(child));
    fields.contents = std::move(contents);
    return MetadataCache::Record(std::make_shared<DBMetadata>(fields));
  };
  struct Case {
    const char* name;
    void (*change)(MetadataCache&);
    std::set<std::string> kept;
  };
  const Case cases[] = {
      {"nothing happened", [](MetadataCache&) {}, {"/t", "/t/a", "/t/a/b", "/t/ab"}},
      {"one listing dropped", [](MetadataCache& c) { c.remove("/t/a"); }, {"/t", "/t/a/b", "/t/ab"}},
      {"a subtree dropped", [](MetadataCache& c) { c.removeSubtree("/t/a"); }, {"/t", "/t/ab"}},
      {"its own listing dropped", [](MetadataCache& c) { c.remove("/t"); }, {"/t/a", "/t/a/b", "/t/ab"}},
      {"its own subtree dropped", [](MetadataCache& c) { c.removeSubtree("/t"); }, {}},
      {"a folder elsewhere dropped",
       [](MetadataCache& c) { c.removeSubtree("/ta"); },
       {"/t", "/t/a", "/t/a/b", "/t/ab"}},
      {"all dropped", [](MetadataCache& c) { c.removeAll(); }, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    cache.removeSubtree("/t");
    const auto fetch = cache.beginTreeFetch("/t");
    c.change(cache);
    cache.endTreeFetch(fetch, {listed("/t", folder("/t/a")), listed("/t/a", folder("/t/a/b")),
                               listed("/t/a/b"), listed("/t/ab")});
    std::set<std::string> kept;
    for (const char* key : {"/t", "/t/a", "/t/a/b", "/t/ab"}) {
      if (cache.find(key)) kept.insert(key);
    }
    EXPECT_EQ(kept, c.kept);
    EXPECT_EQ(cache.holdsTree("/t"),
              c.kept.contains("/t") && c.kept.contains("/t/a") && c.kept.contains("/t/a/b"));
  }
}

TEST_F(MetadataCacheTest, AListingThatCameToTheAddressOfAFreedOneHasNotBeenEntered) {
  alignas(DBMetadata) std::byte place[sizeof(DBMetadata)];
  const auto listingAtPlace = [&] {
    DBMetadata::Fields fields;
    fields.path = "/a";
    fields.isDirectory = true;
    fields.contents = std::make_shared<DBMetadata::Contents>();
    return MetadataCache::Record(new (place) DBMetadata(fields),
                                 [](const DBMetadata* gone) { gone->~DBMetadata(); });
  };
  auto listing = listingAtPlace();
  cache.store("/a", listing);
  cache.noteEntered("/a", listing);
  EXPECT_TRUE(cache.isEntered("/a", listing));
  cache.remove("/a");
  listing.reset();
  listing = listingAtPlace();
  cache.store("/a", listing);
  EXPECT_FALSE(cache.isEntered("/a", listing));
  cache.remove("/a");  // before its place goes
}

TEST(MetadataCacheBeforeTheFirstCursor, KeepsNothingAndSaysWhetherSomethingWasAskedFor) {
  MetadataCache unused;
  const std::lock_guard heldUnused(ObjectExtension::of(unused).monitor());
  EXPECT_FALSE(unused.startKeeping());

  MetadataCache cache;
  const std::lock_guard held(ObjectExtension::of(cache).monitor());
  const auto early = cache.beginFetch("/a");
  cache.store("/x", file("/x"));
  EXPECT_EQ(cache.find("/x"), nullptr);
  EXPECT_TRUE(cache.startKeeping());
  EXPECT_FALSE(cache.startKeeping());
  EXPECT_FALSE(cache.endFetch(early)) << "what changed between its answer and the cursor is never told";
  const auto late = cache.beginFetch("/a");
  EXPECT_TRUE(cache.endFetch(late));
}

TEST(MetadataCacheKey, OnePathHasOneKey) {
  struct Case {
    const char* path;
    const char* key;
  };
  const Case cases[] = {
      {"/", "/"},
      {"", "/"},
      {"/A/B.TXT", "/a/b.txt"},
      {"/a/", "/a"},
      {"//a///b", "/a/b"},
      {"/Übung", "/übung"},
      {"/U\u0308bung", "/übung"},
      {"/ΟΔΟΣ/İ", "/οδοσ/i"},
  };
  for (const Case& c : cases) EXPECT_EQ(MetadataCache::keyOf(c.path), c.key) << c.path;
}
