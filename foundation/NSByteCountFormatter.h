#pragma once
#include <cstdint>
#include <string>

/// A human-readable byte count: decimal units, "Zero KB", "1 byte", "999 bytes", whole KB, one decimal for
/// MB, two from GB on, rounded half up, no trailing zeros, a minus sign for negative counts. Any thread.
std::string stringFromByteCount(std::int64_t bytes);
