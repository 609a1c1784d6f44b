#include "foundation/NSByteCountFormatter.h"

#include <array>

#include <fmt/format.h>

namespace {

struct Unit {
  const char* name;
  std::uint64_t bytes;
  std::uint64_t parts;  // displayed fractions of a unit: 1, 10 or 100
};

constexpr std::array units{Unit{"KB", 1'000, 1}, Unit{"MB", 1'000'000, 10}, Unit{"GB", 1'000'000'000, 100},
                           Unit{"TB", 1'000'000'000'000, 100}, Unit{"PB", 1'000'000'000'000'000, 100}};

/// `bytes` in parts of the unit, rounded half up.
std::uint64_t rounded(std::uint64_t bytes, const Unit& unit) {
  const std::uint64_t partBytes = unit.bytes / unit.parts;
  return bytes / partBytes + (bytes % partBytes >= (partBytes + 1) / 2 ? 1 : 0);
}

std::string withoutTrailingZeros(std::uint64_t parts, const Unit& unit) {
  if (unit.parts == 1) return std::to_string(parts);
  std::string text = unit.parts == 10 ? fmt::format("{}.{}", parts / 10, parts % 10)
                                      : fmt::format("{}.{:02}", parts / 100, parts % 100);
  while (text.ends_with('0')) text.pop_back();
  if (text.ends_with('.')) text.pop_back();
  return text;
}

}  // namespace

std::string stringFromByteCount(std::int64_t bytes) {
  if (bytes == 0) return "Zero KB";
  const std::string sign = bytes < 0 ? "-" : "";
  const std::uint64_t magnitude =
      bytes < 0 ? 0 - static_cast<std::uint64_t>(bytes) : static_cast<std::uint64_t>(bytes);
  if (magnitude < 1000) return fmt::format("{}{} {}", sign, magnitude, magnitude == 1 ? "byte" : "bytes");
  for (const Unit& unit : units) {
    const std::uint64_t parts = rounded(magnitude, unit);
    const bool fits = parts < 1000 * unit.parts;  // 1000 of a unit is shown as 1 of the next
    if (fits || &unit == &units.back()) return sign + withoutTrailingZeros(parts, unit) + " " + unit.name;
  }
  return {};
}
