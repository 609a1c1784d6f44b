#pragma once
#include "foundation/NSObject.h"

/// A singleton representing "no value" in arrays and dictionaries, which cannot hold an empty reference.
class NSNull final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::null;
  static const id& null();
  std::string description() const override { return "<null>"; }
  NSKind kind() const noexcept override { return staticKind; }
};
