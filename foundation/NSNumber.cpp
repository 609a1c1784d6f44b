#include "foundation/NSNumber.h"

#include <cmath>
#include <cstdio>
#include <limits>

std::shared_ptr<NSNumber> NSNumber::withBool(bool value) {
  static const auto& yes =
      *new std::shared_ptr<NSNumber>(std::make_shared<NSNumber>(Integer{}, Origin::boolean, 1));
  static const auto& no =
      *new std::shared_ptr<NSNumber>(std::make_shared<NSNumber>(Integer{}, Origin::boolean, 0));
  return value ? yes : no;
}

std::shared_ptr<NSNumber> NSNumber::withChar(signed char value) {
  return std::make_shared<NSNumber>(Integer{}, Origin::character, value);
}

std::shared_ptr<NSNumber> NSNumber::withInt(std::int64_t value) {
  return std::make_shared<NSNumber>(Integer{}, Origin::integer, value);
}

std::shared_ptr<NSNumber> NSNumber::withFloat(float value) {
  return std::make_shared<NSNumber>(Real{}, Origin::real32, value);
}

std::shared_ptr<NSNumber> NSNumber::withDouble(double value) {
  return std::make_shared<NSNumber>(Real{}, Origin::real64, value);
}

namespace {
bool isReal(NSNumber::Origin origin) {
  return origin == NSNumber::Origin::real32 || origin == NSNumber::Origin::real64;
}
bool isWhole(NSNumber::Origin origin) { return !isReal(origin) && origin != NSNumber::Origin::decimal; }
}  // namespace

bool NSNumber::boolValue() const noexcept { return isWhole(origin_) ? integer_ != 0 : doubleValue() != 0; }

std::int64_t NSNumber::int64Value() const noexcept {
  if (!isReal(origin_)) return integer_;
  if (std::isnan(real_)) return 0;
  if (real_ >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
  if (real_ < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(real_);
}

double NSNumber::doubleValue() const noexcept {
  return isReal(origin_) ? real_ : static_cast<double>(integer_);
}

bool NSNumber::isNaN() const noexcept { return isReal(origin_) && std::isnan(real_); }

std::string NSNumber::stringValue() const {
  if (!isReal(origin_)) return std::to_string(integer_);
  char text[32];
  const int length = origin_ == Origin::real32 ? std::snprintf(text, sizeof text, "%.7g", real_)
                                               : std::snprintf(text, sizeof text, "%.16g", real_);
  return {text, static_cast<std::size_t>(length)};
}

// Numbers of different origins may be equal, so only what they share goes into the hash.
std::size_t NSNumber::hash() const { return std::hash<double>{}(doubleValue()); }

bool NSNumber::isEqual(const NSObject& other) const {
  const auto* number = as<NSNumber>(&other);
  if (!number) return false;
  if (this == number) return true;
  if (isNaN() || number->isNaN()) return false;
  if (isWhole(origin_) && isWhole(number->origin_)) return integer_ == number->integer_;
  if (origin_ == Origin::decimal && number->origin_ == Origin::decimal)
    return stringValue() == number->stringValue();
  return doubleValue() == number->doubleValue();
}
