#pragma once
#include <cstdint>
#include <functional>

/// The progress of a transfer: `location` of `length`. For transfers of one item in thousandths, with length
/// 1000.
struct NSRange {
  std::uint64_t location = 0;
  std::uint64_t length = 0;
};

/// Receives progress; returning false stops the transfer, which then fails with CanceledByUserErrorDomain,
/// code -1. May be empty. Called on any thread; must not block and must not call the plug-in.
using ProgressCallback = std::function<bool(NSRange)>;
