#pragma once
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/NSObject.h"

/// A fixed map from objects to objects (neither empty), keys compared with isEqual. Keeps the order in which
/// keys first came; of equal keys the last value counts. Small ones are searched in line, larger ones through
/// an index.
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
  /// A key's hash and its place in entries_, ordered by hash. Strings of one hash are ordered by their text,
  /// so that keys chosen to share a hash cost no more than others.
  struct Slot {
    std::size_t hash;
    std::uint32_t place;
  };
  using Index = std::vector<Slot>;

  void mergeEqualKeysInLine();
  void mergeEqualKeysByIndex();
  void dropMerged();
  void buildIndex();
  std::size_t equalSlotBefore(std::size_t end, const Slot& slot) const;
  bool comesBefore(const Slot& slot, std::size_t hash, const NSObject& key) const;
  std::size_t find(const NSObject& key) const;
  Entries entries_;
  std::unique_ptr<Index> index_;  // none for small ones
};
