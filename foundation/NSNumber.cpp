#include "foundation/NSNumber.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "foundation/Immortal.h"

std::shared_ptr<NSNumber> NSNumber::withBool(bool value) {
  static const NSNumber& yes = *new NSNumber(Whole{}, Origin::boolean, 1);
  static const NSNumber& no = *new NSNumber(Whole{}, Origin::boolean, 0);
  return immortal(value ? yes : no);
}

std::shared_ptr<NSNumber> NSNumber::withChar(signed char value) {
  return std::make_shared<NSNumber>(Whole{}, Origin::character, value);
}

std::shared_ptr<NSNumber> NSNumber::withInt(std::int64_t value) { return std::make_shared<NSNumber>(value); }

std::shared_ptr<NSNumber> NSNumber::withDouble(double value) {
  return std::make_shared<NSNumber>(Real{}, value);
}

namespace {
bool isReal(NSNumber::Origin origin) { return origin == NSNumber::Origin::real; }
bool isWhole(NSNumber::Origin origin) { return !isReal(origin) && origin != NSNumber::Origin::decimal; }

/// For a `real` that `integer` rounds to: whether nothing was lost in rounding.
bool isExactly(double real, std::int64_t integer) {
  return real < 9223372036854775808.0 && static_cast<std::int64_t>(real) == integer;
}
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
  std::array<char, 32> text;
  char* const first = text.data();
  char* const last = first + text.size();
  if (!isReal(origin_)) return {first, std::to_chars(first, last, integer_).ptr};
  // Like printf's %.16g, but independent of the locale.
  return {first, std::to_chars(first, last, real_, std::chars_format::general, 16).ptr};
}

// Numbers of different origins may be equal, so the hash uses the double value that all have.
std::size_t NSNumber::hash() const { return isNaN() ? 0 : std::hash<double>{}(doubleValue()); }

bool NSNumber::isEqual(const NSObject& other) const {
  const auto* number = as<NSNumber>(&other);
  if (!number) return false;
  if (this == number) return true;
  if (isNaN() || number->isNaN()) return false;
  if (isWhole(origin_) && isWhole(number->origin_)) return integer_ == number->integer_;
  // Integers and decimals hold more digits than a double, so only a real is compared as one.
  if (!isReal(origin_) && !isReal(number->origin_)) return stringValue() == number->stringValue();
  if (doubleValue() != number->doubleValue()) return false;
  if (isWhole(origin_)) return isExactly(number->real_, integer_);
  if (isWhole(number->origin_)) return isExactly(real_, number->integer_);
  return true;
}
