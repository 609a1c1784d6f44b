#pragma once
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/NSObject.h"

/// An immutable map from objects to objects (neither empty), with keys compared by isEqual. Keeps the order
/// in which keys first occur; the last value of equal keys wins. Small dictionaries are searched linearly,
/// larger ones through an index.
class NSDictionary final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::dictionary;
  using Entries = std::vector<std::pair<id, id>>;
  explicit NSDictionary(Entries entries);
  ~NSDictionary() override;
  /// String keys.
  static std::shared_ptr<NSDictionary> with(std::initializer_list<std::pair<std::string_view, id>> entries);

  /// The value under `key`, or nothing.
  id objectForKey(const NSObject& key) const;
  id objectForKey(std::string_view key) const;
  const Entries& entries() const noexcept { return entries_; }
  std::size_t count() const noexcept { return entries_.size(); }

  std::size_t hash() const override { return entries_.size(); }
  bool isEqual(const NSObject& other) const override;
  std::string description() const override;
  NSKind kind() const noexcept override { return staticKind; }

 private:
  /// A key's hash and index in entries_, ordered by hash. Strings of equal hash are ordered by text, so keys
  /// chosen to collide cost no more than others.
  struct Slot {
    std::size_t hash;
    std::uint32_t place;
  };
  using Index = std::vector<Slot>;

  void mergeEqualKeysByScan();
  void mergeEqualKeysByIndex();
  void dropMerged();
  void buildIndex();
  std::size_t equalSlotBefore(std::size_t end, const Slot& slot) const;
  bool comesBefore(const Slot& slot, std::size_t hash, const NSObject& key) const;
  std::size_t find(const NSObject& key) const;
  Entries entries_;
  std::unique_ptr<Index> index_;  // null for small dictionaries
};
