#include "foundation/NSDecimalNumber.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>

namespace {

constexpr int maxDigits = 38;
constexpr int minExponent = -128;
constexpr int maxExponent = 127;
// Exponents in the text beyond this cannot come back into range by any number of digits we accept.
constexpr int exponentBound = 1'000'000;

/// What the text says, before it is fitted into 38 digits: the significant digits and the power of ten they
/// count from.
struct Scanned {
  std::string digits;  // no leading zeros
  long exponent = 0;
  bool isNegative = false;
};

std::string_view takeDigits(std::string_view& text) {
  std::size_t length = 0;
  while (length < text.size() && text[length] >= '0' && text[length] <= '9') ++length;
  const std::string_view digits = text.substr(0, length);
  text.remove_prefix(length);
  return digits;
}

bool takeSign(std::string_view& text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  return isNegative;
}

std::optional<long> takeExponent(std::string_view& text) {
  if (!text.starts_with('e') && !text.starts_with('E')) return 0;
  text.remove_prefix(1);
  const bool isNegative = takeSign(text);
  const std::string_view digits = takeDigits(text);
  if (digits.empty()) return std::nullopt;
  long value = 0;
  for (const char digit : digits) value = std::min<long>(value * 10 + (digit - '0'), exponentBound);
  return isNegative ? -value : value;
}

std::optional<Scanned> scan(std::string_view text) {
  Scanned scanned;
  scanned.isNegative = takeSign(text);
  const std::string_view whole = takeDigits(text);
  std::string_view fraction;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    fraction = takeDigits(text);
    if (fraction.empty()) return std::nullopt;
  }
  const auto exponent = takeExponent(text);
  if (whole.empty() || !exponent || !text.empty()) return std::nullopt;
  scanned.digits.reserve(whole.size() + fraction.size());
  scanned.digits.append(whole).append(fraction);
  scanned.digits.erase(0, scanned.digits.find_first_not_of('0'));
  scanned.exponent = *exponent - static_cast<long>(fraction.size());
  return scanned;
}

void dropTrailingZeros(Scanned& scanned) {
  while (scanned.digits.ends_with('0')) {
    scanned.digits.pop_back();
    ++scanned.exponent;
  }
}

/// Adds one to the last digit, carrying; the text may grow by a digit.
void increment(std::string& digits) {
  for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
    if (*digit != '9') {
      ++*digit;
      return;
    }
    *digit = '0';
  }
  digits.insert(digits.begin(), '1');
}

void roundToMaxDigits(Scanned& scanned) {
  if (scanned.digits.size() <= maxDigits) return;
  const bool roundsUp = scanned.digits[maxDigits] >= '5';
  scanned.exponent += static_cast<long>(scanned.digits.size()) - maxDigits;
  scanned.digits.resize(maxDigits);
  if (roundsUp) increment(scanned.digits);
  dropTrailingZeros(scanned);
}

/// Brings the exponent into range by moving zeros into the digits where there is room for them.
bool fitExponent(Scanned& scanned) {
  while (scanned.exponent > maxExponent && scanned.digits.size() < maxDigits) {
    scanned.digits.push_back('0');
    --scanned.exponent;
  }
  return scanned.exponent >= minExponent && scanned.exponent <= maxExponent;
}

}  // namespace

NSDecimalNumber::NSDecimalNumber(const Parts& parts)
    : NSNumber(Origin::decimal),
      mantissa_(parts.mantissa),
      exponent_(parts.exponent),
      isNegative_(parts.isNegative),
      isNaN_(parts.isNaN) {}

std::shared_ptr<NSDecimalNumber> NSDecimalNumber::fromString(std::string_view text) {
  auto scanned = scan(text);
  if (!scanned) return nullptr;
  dropTrailingZeros(*scanned);
  if (scanned->digits.empty()) return std::make_shared<NSDecimalNumber>(Parts{});
  roundToMaxDigits(*scanned);
  if (!fitExponent(*scanned)) return nullptr;
  Parts parts;
  for (const char digit : scanned->digits)
    parts.mantissa = parts.mantissa * 10 + static_cast<unsigned>(digit - '0');
  parts.exponent = static_cast<int>(scanned->exponent);
  parts.isNegative = scanned->isNegative;
  return std::make_shared<NSDecimalNumber>(parts);
}

std::shared_ptr<NSDecimalNumber> NSDecimalNumber::notANumber() {
  Parts parts;
  parts.isNaN = true;
  return std::make_shared<NSDecimalNumber>(parts);
}

std::string NSDecimalNumber::stringValue() const {
  if (isNaN_) return "NaN";
  if (mantissa_ == 0) return "0";
  std::string digits;
  for (Mantissa rest = mantissa_; rest != 0; rest /= 10) {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(rest % 10)));
  }
  if (exponent_ >= 0) {
    digits.append(static_cast<std::size_t>(exponent_), '0');
  } else {
    const auto places = static_cast<std::size_t>(-exponent_);
    if (digits.size() <= places) digits.insert(0, places - digits.size() + 1, '0');
    digits.insert(digits.size() - places, 1, '.');
  }
  return isNegative_ ? "-" + digits : digits;
}

double NSDecimalNumber::doubleValue() const noexcept {
  if (isNaN_) return std::numeric_limits<double>::quiet_NaN();
  const std::string text = stringValue();
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::int64_t NSDecimalNumber::int64Value() const noexcept {
  if (isNaN_) return 0;
  const std::string text = stringValue();
  std::int64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec == std::errc::result_out_of_range) {
    return isNegative_ ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
  }
  return value;
}
