#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/Fatal.h"
#include "foundation/NSArray.h"
#include "foundation/NSDate.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSError.h"
#include "foundation/NSNull.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/NSURL.h"
#include "foundation/ObjectExtension.h"

namespace {

constexpr auto retain = AssociationPolicy::retainAtomic;

/// Reports its own end.
class Witness final : public NSObject {
 public:
  explicit Witness(std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {}
  ~Witness() override { atEnd_(); }

 private:
  const std::function<void()> atEnd_;
};

NSDictionary::Entries numberedEntries(int count) {
  NSDictionary::Entries entries;
  for (int number = 0; number < count; ++number) {
    entries.emplace_back(str("key " + std::to_string(number)), NSNumber::withInt(number));
  }
  return entries;
}

}  // namespace

TEST(Object, EqualityAndHash) {
  struct Case {
    const char* name;
    id left;
    id right;
    bool equal;
  };
  const auto array = [](std::vector<id> items) { return std::make_shared<NSArray>(std::move(items)); };
  const auto error = [](int code, id detail) {
    return std::make_shared<NSError>("domain", code, NSDictionary::with({{"detail", std::move(detail)}}));
  };
  const Case cases[] = {
      {"strings by code units", str("caf\u00e9"), str("cafe\u0301"), false},
      {"string and number", str("1"), NSNumber::withInt(1), false},
      {"arrays", array({str("a"), NSNull::null()}), array({str("a"), NSNull::null()}), true},
      {"arrays in another order", array({str("a"), str("b")}), array({str("b"), str("a")}), false},
      {"dictionaries in another order", NSDictionary::with({{"a", str("1")}, {"b", str("2")}}),
       NSDictionary::with({{"b", str("2")}, {"a", str("1")}}), true},
      {"dictionaries, another value", NSDictionary::with({{"a", str("1")}}),
       NSDictionary::with({{"a", str("2")}}), false},
      {"dictionaries, another key", NSDictionary::with({{"a", str("1")}}),
       NSDictionary::with({{"b", str("1")}}), false},
      {"errors", error(1, str("x")), error(1, str("x")), true},
      {"something and nothing", str("x"), nullptr, false},
      {"errors, other code", error(1, str("x")), error(2, str("x")), false},
      {"errors, other details", error(1, str("x")), error(1, str("y")), false},
      {"URLs by text", std::make_shared<NSURL>("file:///a"), std::make_shared<NSURL>("file:///a/"), false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(isEqual(c.left, c.right), c.equal);
    EXPECT_EQ(isEqual(c.right, c.left), c.equal);
    EXPECT_TRUE(!c.equal || c.left->hash() == c.right->hash());
  }
}

TEST(Dictionary, FindsEveryKeyWithAndWithoutIndex) {
  for (const int count : {0, 1, 15, 16, 17, 1000}) {
    SCOPED_TRACE(count);
    const NSDictionary dictionary(numberedEntries(count));
    EXPECT_EQ(dictionary.count(), static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number) {
      const id found = dictionary.objectForKey("key " + std::to_string(number));
      ASSERT_TRUE(found) << number;
      EXPECT_EQ(as<NSNumber>(found)->int64Value(), number);
      EXPECT_EQ(dictionary.objectForKey(NSString("key " + std::to_string(number))), found);
    }
    EXPECT_EQ(dictionary.objectForKey("key"), nullptr);
  }
}

TEST(Dictionary, OfEqualKeysTheFirstPlaceAndTheLastValueStay) {
  for (const int count : {3, 16, 17, 300}) {
    SCOPED_TRACE(count);
    auto entries = numberedEntries(count);
    entries.emplace_back(str("key 1"), str("second"));
    entries.emplace_back(str("key 1"), str("third"));
    const NSDictionary dictionary(std::move(entries));
    EXPECT_EQ(dictionary.count(), static_cast<std::size_t>(count));
    EXPECT_EQ(*textOf(dictionary.objectForKey("key 1")), "third");
    EXPECT_EQ(*textOf(dictionary.entries()[1].first), "key 1");
    EXPECT_EQ(as<NSNumber>(dictionary.objectForKey("key 2"))->int64Value(), 2);
  }
}

TEST(Containers, DeepNestingIsDestroyedWithoutTheStack) {
  constexpr int levels = 1'000'000;
  struct Case {
    const char* name;
    std::function<id(id)> wrap;
  };
  const Case cases[] = {
      {"arrays", [](id inner) { return std::make_shared<NSArray>(std::vector<id>{std::move(inner)}); }},
      {"dictionaries",
       [](id inner) {
         return NSDictionary::with({{"k", std::move(inner)}});
       }},
      {"errors and what caused them", [](id inner) {
         return std::make_shared<NSError>("d", 1,
                                          NSDictionary::with({{NSUnderlyingErrorKey, std::move(inner)}}));
       }}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int ended = 0;
    id nested = std::make_shared<Witness>([&] { ++ended; });
    for (int level = 0; level < levels; ++level) nested = c.wrap(std::move(nested));
    nested = nullptr;
    EXPECT_EQ(ended, 1);
  }
}

TEST(Association, TheOldValueGoesAfterTheNewOneIsIn) {
  const NSObject owner;
  const NSObject key;
  const id next = str("new");
  id seenAtTheEnd;
  auto& extension = ObjectExtension::of(owner);
  extension.setAssociated(&key, std::make_shared<Witness>([&] { seenAtTheEnd = extension.associated(&key); }),
                          retain);
  // Would hang if the old one were released under the lock.
  extension.setAssociated(&key, next, retain);
  EXPECT_EQ(seenAtTheEnd, next);
}

TEST(Association, ManyThreadsSetAndGetOnAFreshObject) {
  constexpr int threadCount = 8;
  const NSObject owner;
  const NSObject shared;
  std::latch start(threadCount);
  std::atomic<int> mismatches = 0;
  std::vector<std::jthread> threads;
  for (int number = 0; number < threadCount; ++number) {
    threads.emplace_back([&, number] {
      const NSObject key;
      start.arrive_and_wait();
      auto& extension = ObjectExtension::of(owner);
      for (int round = 0; round < 500; ++round) {
        extension.setAssociated(&key, NSNumber::withInt(round), retain);
        extension.setAssociated(&shared, NSNumber::withInt(number), retain);
        const auto own = as<NSNumber>(extension.associated(&key));
        if (!own || own->int64Value() != round || !extension.associated(&shared)) ++mismatches;
      }
    });
  }
  threads.clear();
  EXPECT_EQ(mismatches, 0);
}

TEST(InvariantDeathTest, NamesWhatIsBrokenAndWhere) {
  EXPECT_DEATH(required(static_cast<int*>(nullptr), "the manager exists"),
               "broken invariant: the manager exists \\(.*objects_test.cpp:[0-9]+\\)");
}
