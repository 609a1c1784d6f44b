#include <charconv>
#include <cstdint>
#include <optional>

#include "foundation/NSDecimalNumber.h"
#include "foundation/NSNumber.h"
#include "json/QJJsonParser.h"

namespace {

bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

/// The value of `digits`, or nothing when it does not fit. The sign is applied later, so the lowest 64-bit
/// value does not fit and is read as a decimal.
std::optional<std::int64_t> integerOf(std::string_view digits) noexcept {
  std::int64_t value = 0;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return result.ec == std::errc() ? std::optional(value) : std::nullopt;
}

}  // namespace

bool QJJsonParser::scanDigits(std::string_view messageIfNone) {
  if (!isDigit(current())) return fail(QJJsonErrorCode::number, messageIfNone);
  while (isDigit(current())) ++position_;
  return true;
}

bool QJJsonParser::scanWholePart() {
  if (current() != '0') return scanDigits("No digits after initial minus");
  ++position_;
  if (!isDigit(current())) return true;
  return fail(QJJsonErrorCode::number, "Leading 0 disallowed in number");
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
      *number = arena_.make<NSNumber>(isNegative ? -*value : *value);
      return true;
    }
  }
  const std::string_view text(first, static_cast<std::size_t>(position_ - first));
  if (auto canonical = NSDecimalNumber::canonicalText(text)) {
    *number = arena_.make<NSDecimalNumber>(std::move(*canonical));
    return true;
  }
  return fail(QJJsonErrorCode::number, "Failed creating decimal instance");
}
