#pragma once
#include <cstdint>

#include "foundation/NSObject.h"

/// Identifies one batch of copies. Any thread.
class KZVBatchId final : public NSObject {
 public:
  KZVBatchId();
  std::uint64_t number() const noexcept { return number_; }

 private:
  const std::uint64_t number_;  // unique in the process
};
