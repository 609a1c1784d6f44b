#include "foundation/NSDecimalNumber.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <limits>
#include <optional>

namespace {

constexpr int maxDigits = 38;
constexpr int minExponent = -128;
constexpr int maxExponent = 127;
// Exponents beyond this cannot come back into range by any number of digits that fits into memory.
constexpr long exponentBound = 1'000'000'000'000'000;

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

/// The usual case: no exponent, and digits that fit 64 bits.
std::optional<NSDecimalNumber::Parts> shortNumber(std::string_view text) {
  constexpr std::size_t longestBytes = 19;  // 18 digits and a point
  NSDecimalNumber::Parts parts;
  parts.isNegative = takeSign(text);
  if (text.size() > longestBytes || text.find('.') == std::string_view::npos) return std::nullopt;
  const std::string_view whole = takeDigits(text);
  if (!text.starts_with('.')) return std::nullopt;
  text.remove_prefix(1);
  const std::string_view fraction = takeDigits(text);
  if (whole.empty() || fraction.empty() || !text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (const char digit : whole) value = value * 10 + static_cast<unsigned>(digit - '0');
  for (const char digit : fraction) value = value * 10 + static_cast<unsigned>(digit - '0');
  if (value == 0) return NSDecimalNumber::Parts{};
  parts.exponent = -static_cast<int>(fraction.size());
  for (; value % 10 == 0; value /= 10) ++parts.exponent;
  parts.mantissa = value;
  return parts;
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
  std::size_t at = digits.size();
  while (at > 0 && digits[at - 1] == '9') digits[--at] = '0';
  if (at > 0) {
    ++digits[at - 1];
  } else {
    digits.insert(digits.begin(), '1');
  }
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

std::optional<NSDecimalNumber::Parts> NSDecimalNumber::partsOf(std::string_view text) {
  if (const auto parts = shortNumber(text)) return parts;
  auto scanned = scan(text);
  if (!scanned) return std::nullopt;
  dropTrailingZeros(*scanned);
  if (scanned->digits.empty()) return Parts{};
  roundToMaxDigits(*scanned);
  if (!fitExponent(*scanned)) return std::nullopt;
  Parts parts;
  for (const char digit : scanned->digits)
    parts.mantissa = parts.mantissa * 10 + static_cast<unsigned>(digit - '0');
  parts.exponent = static_cast<int>(scanned->exponent);
  parts.isNegative = scanned->isNegative;
  return parts;
}

std::shared_ptr<NSDecimalNumber> NSDecimalNumber::fromString(std::string_view text) {
  const auto parts = partsOf(text);
  return parts ? std::make_shared<NSDecimalNumber>(*parts) : nullptr;
}

const std::shared_ptr<NSDecimalNumber>& NSDecimalNumber::notANumber() {
  static const auto& constant = *new std::shared_ptr<NSDecimalNumber>([] {
    Parts parts;
    parts.isNaN = true;
    return std::make_shared<NSDecimalNumber>(parts);
  }());
  return constant;
}

std::string NSDecimalNumber::stringValue() const {
  if (isNaN_) return "NaN";
  if (mantissa_ == 0) return "0";
  std::array<char, maxDigits + 1> reversed;
  char* end = reversed.data();
  Mantissa rest = mantissa_;
  for (; rest >> 64 != 0; rest /= 10) *end++ = static_cast<char>('0' + static_cast<int>(rest % 10));
  for (auto low = static_cast<std::uint64_t>(rest); low != 0; low /= 10)
    *end++ = static_cast<char>('0' + low % 10);
  std::string digits(std::make_reverse_iterator(end), std::make_reverse_iterator(reversed.data()));
  if (exponent_ >= 0) {
    digits.append(static_cast<std::size_t>(exponent_), '0');
  } else {
    const auto places = static_cast<std::size_t>(-exponent_);
    if (digits.size() <= places) digits.insert(0, places - digits.size() + 1, '0');
    digits.insert(digits.size() - places, 1, '.');
  }
  if (isNegative_) digits.insert(digits.begin(), '-');
  return digits;
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
