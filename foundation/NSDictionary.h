#pragma once
#include <initializer_list>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "foundation/NSObject.h"

/// A fixed map from objects to objects, compared with isEqual. Keeps the order in which keys first came; of
/// equal keys the last value counts. Small ones are searched in line, larger ones through an index.
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
  std::size_t find(const NSObject& key) const;
  Entries entries_;
  std::unordered_multimap<std::size_t, std::size_t>
      index_;  // key hash -> place in entries_; empty for small ones
};
