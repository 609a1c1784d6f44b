#include "kzv/ProgressLine.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "kzv/Formatting.h"

namespace kzv::cli {

namespace {

constexpr std::size_t barWidth = 24;

std::string bar(double fraction) {
  const auto filled = static_cast<std::size_t>(fraction * static_cast<double>(barWidth));
  return fmt::format("[{}{}]", std::string(filled, '#'), std::string(barWidth - filled, '-'));
}

std::string timeLeft(const copy::CopyCounts& counts, double bytesPerSecond) {
  constexpr double aDay = 86'400;
  const auto left = static_cast<double>(counts.bytesKnown - std::min(counts.bytesDone, counts.bytesKnown));
  if (bytesPerSecond < 1 || left / bytesPerSecond > aDay) return {};
  return duration(std::chrono::seconds(std::lround(std::ceil(left / bytesPerSecond)))) + " left";
}

}  // namespace

void TransferRate::add(std::uint64_t bytesDone, Clock::time_point now) {
  const bool isFirst = lastTime_ == Clock::time_point{};
  const double seconds = isFirst ? 0 : std::chrono::duration<double>(now - lastTime_).count();
  constexpr double shortest = 0.2;  // shorter intervals are too inaccurate
  if (!isFirst && seconds < shortest) return;
  if (!isFirst) {
    constexpr double memorySeconds = 3;
    const double rate = static_cast<double>(bytesDone - std::min(lastBytes_, bytesDone)) / seconds;
    const double weight = bytesPerSecond_ == 0 ? 1 : 1 - std::exp(-seconds / memorySeconds);
    bytesPerSecond_ += weight * (rate - bytesPerSecond_);
  }
  lastTime_ = now;
  lastBytes_ = bytesDone;
}

std::string progressLine(const copy::CopyCounts& counts, double bytesPerSecond, std::size_t width) {
  const bool countsBytes = counts.bytesKnown > 0;
  const double done = static_cast<double>(countsBytes ? counts.bytesDone : counts.filesDone);
  const double all = static_cast<double>(countsBytes ? counts.bytesKnown : counts.filesKnown);
  const double fraction = all > 0 ? std::min(1.0, done / all) : 0;
  std::string line = fmt::format("{}  {:3}%", bar(fraction), static_cast<int>(fraction * 100));
  const auto append = [&](const std::string& part) {
    if (!part.empty() && line.size() + 2 + part.size() <= width) line += "  " + part;
  };
  append(fmt::format("{} of {}", byteCount(counts.bytesDone), byteCount(counts.bytesKnown)));
  if (bytesPerSecond >= 1) append(byteCount(static_cast<std::uint64_t>(bytesPerSecond)) + "/s");
  append(timeLeft(counts, bytesPerSecond));
  if (counts.filesKnown > 1) append(fmt::format("{} of {} files", counts.filesDone, counts.filesKnown));
  return line.size() <= width ? line : fmt::format("{}%", static_cast<int>(fraction * 100));
}

}  // namespace kzv::cli
