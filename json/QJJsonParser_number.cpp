#include <optional>

#include "foundation/NSDecimalNumber.h"
#include "foundation/NSNumber.h"
#include "json/QJJsonParser.h"

namespace {

bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

/// The number that `digits` stand for, or nothing when it does not fit. The sign comes later: the lowest
/// 64-bit value is therefore out of reach, and is read as a decimal.
std::optional<std::int64_t> integerOf(std::string_view digits) noexcept {
  std::int64_t value = 0;
  for (const char digit : digits) {
    if (__builtin_mul_overflow(value, 10, &value)) return std::nullopt;
    if (__builtin_add_overflow(value, digit - '0', &value)) return std::nullopt;
  }
  return value;
}

}  // namespace

bool QJJsonParser::scanDigits(std::string_view messageIfNone) {
  if (!isDigit(current())) {
    addErrorWithCode(QJJsonErrorCode::number, messageIfNone);
    return false;
  }
  while (isDigit(current())) ++position_;
  return true;
}

bool QJJsonParser::scanWholePart() {
  if (current() != '0') return scanDigits("No digits after initial minus");
  ++position_;
  if (!isDigit(current())) return true;
  addErrorWithCode(QJJsonErrorCode::number, "Leading 0 disallowed in number");
  return false;
}

bool QJJsonParser::scanFraction() {
  ++position_;
  return scanDigits("No digits after decimal point");
}

bool QJJsonParser::scanExponent() {
  ++position_;
  if (current() == '+' || current() == '-') ++position_;
  return scanDigits("No digits after exponent");
}

bool QJJsonParser::scanNumber(id* number) {
  const char* const first = position_;
  const bool isNegative = current() == '-';
  if (isNegative) ++position_;
  const char* const firstDigit = position_;
  if (!scanWholePart()) return false;
  const char* const afterWhole = position_;
  if (current() == '.' && !scanFraction()) return false;
  if ((current() == 'e' || current() == 'E') && !scanExponent()) return false;
  if (position_ == afterWhole) {
    const std::string_view digits(firstDigit, static_cast<std::size_t>(position_ - firstDigit));
    if (const auto value = integerOf(digits)) {
      *number = integer(isNegative ? -*value : *value);
      return true;
    }
  }
  const std::string_view text(first, static_cast<std::size_t>(position_ - first));
  if (const auto parts = NSDecimalNumber::partsOf(text)) {
    *number = arena_.make<NSDecimalNumber>(*parts);
    return true;
  }
  addErrorWithCode(QJJsonErrorCode::number, "Failed creating decimal instance");
  return false;
}

id QJJsonParser::integer(std::int64_t value) {
  if (auto shared = NSNumber::sharedInt(value)) return shared;
  return arena_.make<NSNumber>(value);
}
