#include "core/copy/KZVBatchId.h"

#include <atomic>

namespace {
std::uint64_t nextNumber() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}
}  // namespace

KZVBatchId::KZVBatchId() : number_(nextNumber()) {}
