#include "foundation/NSDate.h"

#include <charconv>

#include <fmt/format.h>

using namespace std::chrono;

std::size_t NSDate::hash() const { return std::hash<Time::rep>{}(time_.time_since_epoch().count()); }

bool NSDate::isEqual(const NSObject& other) const {
  const auto* date = as<NSDate>(&other);
  return date && date->time_ == time_;
}

std::string NSDate::iso8601(Time time) {
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(floor<seconds>(time) - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::optional<NSDate::Time> NSDate::fromIso8601(std::string_view text) {
  constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != form.size()) return std::nullopt;
  for (std::size_t at = 0; at < form.size(); ++at) {
    const bool isDigit = text[at] >= '0' && text[at] <= '9';
    if (form[at] == 'd' ? !isDigit : text[at] != form[at]) return std::nullopt;
  }
  const auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    std::from_chars(text.data() + at, text.data() + at + length, value);
    return value;
  };
  const year_month_day date{year(number(0, 4)), month(static_cast<unsigned>(number(5, 2))),
                            day(static_cast<unsigned>(number(8, 2)))};
  const int hour = number(11, 2);
  const int minute = number(14, 2);
  const int second = number(17, 2);
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;  // 60: a leap second
  const sys_seconds moment = sys_days(date) + hours(hour) + minutes(minute) + seconds(second);
  if (moment <= ceil<seconds>(Time::min()) || moment >= floor<seconds>(Time::max())) return std::nullopt;
  return moment;
}
