#pragma once
#include <cstdint>
#include <functional>

/// How far a transfer is: location of length. Transfers of one item count in thousandths, so length is 1000.
struct NSRange {
  std::uint64_t location = 0;
  std::uint64_t length = 0;
};

/// Told of progress; false stops the transfer, which then fails with CanceledByUserErrorDomain, code -1. May
/// be empty. Runs on whatever thread moves the bytes; must not block and must not call the plug-in.
using ProgressCallback = std::function<bool(NSRange)>;
