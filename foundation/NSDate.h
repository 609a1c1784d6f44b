#pragma once
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/NSObject.h"

/// A point in time of the system clock (UTC).
class NSDate final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::date;
  using Time = std::chrono::system_clock::time_point;
  explicit NSDate(Time time) : time_(time) {}

  Time time() const noexcept { return time_; }
  std::size_t hash() const override;
  bool isEqual(const NSObject& other) const override;
  std::string description() const override { return iso8601(time_); }
  NSKind kind() const noexcept override { return staticKind; }

  /// "2024-05-01T09:30:00Z": UTC, whole seconds (RFC 3339).
  static std::string iso8601(Time time);
  /// Parses the format that iso8601 writes; nothing for any other text, an impossible date, or a year that
  /// Time cannot hold (before 1678 or after 2261).
  static std::optional<Time> fromIso8601(std::string_view text);

 private:
  const Time time_;
};
