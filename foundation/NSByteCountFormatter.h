#pragma once
#include <cstdint>
#include <string>

/// Byte counts for people, as file managers write them: decimal units, "Zero KB", "1 byte", "999 bytes",
/// whole KB, one decimal for MB, two from GB on, rounded half up, no trailing zeros, a minus for less than
/// nothing. Any thread.
std::string stringFromByteCount(std::int64_t bytes);
