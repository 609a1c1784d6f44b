#pragma once
#include <utility>
#include <vector>

#include "foundation/NSObject.h"

/// An immutable array of objects, none of them empty (NSNull represents null). May be nested to any depth;
/// but isEqual and description recurse, so use them only on data whose depth was limited when it was parsed.
class NSArray final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::array;
  explicit NSArray(std::vector<id> items) : items_(std::move(items)) {}
  ~NSArray() override;

  const std::vector<id>& items() const noexcept { return items_; }
  std::size_t hash() const override { return items_.size(); }
  bool isEqual(const NSObject& other) const override;
  std::string description() const override;
  NSKind kind() const noexcept override { return staticKind; }

 private:
  std::vector<id> items_;
};
