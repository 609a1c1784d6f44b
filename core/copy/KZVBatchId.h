#pragma once
#include <cstdint>

#include "foundation/NSObject.h"

/// Names one batch of copies, so that its progress and its end can be told from another's.
class KZVBatchId final : public NSObject {
 public:
  KZVBatchId();
  std::uint64_t number() const noexcept { return number_; }

 private:
  const std::uint64_t number_;  // unique in the process
};
