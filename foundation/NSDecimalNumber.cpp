#include "foundation/NSDecimalNumber.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace {

constexpr std::size_t maxDigits = 38;
constexpr long minExponent = -128;
constexpr long maxExponent = 127;
// Clamped here against overflow; no number of digits that fits into memory would bring such an exponent into
// range.
constexpr long exponentBound = 1'000'000'000'000'000;

std::string_view takeDigits(std::string_view& text) {
  const auto end = std::find_if_not(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  const std::string_view digits = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text.remove_prefix(digits.size());
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
  for (const char digit : digits) value = std::min(value * 10 + (digit - '0'), exponentBound);
  return isNegative ? -value : value;
}

/// Rounds half up to maxDigits; `exponent` is the last digit's power of ten.
void round(std::string& digits, long& exponent) {
  if (digits.size() <= maxDigits) return;
  const bool roundsUp = digits[maxDigits] >= '5';
  exponent += static_cast<long>(digits.size() - maxDigits);
  digits.resize(maxDigits);
  if (!roundsUp) return;
  digits.insert(digits.begin(), '0');
  std::size_t last = digits.size() - 1;
  for (; digits[last] == '9'; --last) digits[last] = '0';
  ++digits[last];
}

void dropOuterZeros(std::string& digits, long& exponent) {
  digits.erase(0, digits.find_first_not_of('0'));
  for (; digits.ends_with('0'); ++exponent) digits.pop_back();
}

std::string withoutExponent(std::string digits, long exponent) {
  if (exponent >= 0) return digits.append(static_cast<std::size_t>(exponent), '0');
  const auto places = static_cast<std::size_t>(-exponent);
  if (digits.size() <= places) digits.insert(0, places - digits.size() + 1, '0');
  return digits.insert(digits.size() - places, 1, '.');
}

/// Whether digits around a point are already in canonical form, as most numbers are.
bool isCanonical(std::string_view whole, std::string_view fraction) {
  return !fraction.empty() && !fraction.ends_with('0') && (whole == "0" || !whole.starts_with('0')) &&
         whole.size() + fraction.size() <= maxDigits;
}

}  // namespace

std::optional<std::string> NSDecimalNumber::canonicalText(std::string_view text) {
  const std::string_view written = text;
  const bool isNegative = takeSign(text);
  const std::string_view whole = takeDigits(text);
  std::string_view fraction;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    fraction = takeDigits(text);
    if (fraction.empty()) return std::nullopt;
  }
  if (text.empty() && !whole.empty() && isCanonical(whole, fraction)) {
    return std::string(written.substr(written.starts_with('+') ? 1 : 0));
  }
  const auto writtenExponent = takeExponent(text);
  if (whole.empty() || !writtenExponent || !text.empty()) return std::nullopt;
  std::string digits = std::string(whole).append(fraction);
  long exponent = *writtenExponent - static_cast<long>(fraction.size());
  dropOuterZeros(digits, exponent);
  round(digits, exponent);
  dropOuterZeros(digits, exponent);
  if (digits.empty()) return "0";
  // Unused digits can hold trailing zeros, which lowers the exponent.
  const auto freeDigits = static_cast<long>(maxDigits - digits.size());
  if (exponent < minExponent || exponent > maxExponent + freeDigits) return std::nullopt;
  return (isNegative ? "-" : "") + withoutExponent(std::move(digits), exponent);
}

std::shared_ptr<NSDecimalNumber> NSDecimalNumber::fromString(std::string_view text) {
  auto canonical = canonicalText(text);
  return canonical ? std::make_shared<NSDecimalNumber>(std::move(*canonical)) : nullptr;
}

const std::shared_ptr<NSDecimalNumber>& NSDecimalNumber::notANumber() {
  static const auto& constant =
      *new std::shared_ptr<NSDecimalNumber>(std::make_shared<NSDecimalNumber>("NaN"));
  return constant;
}

double NSDecimalNumber::doubleValue() const noexcept {
  if (isNaN()) return std::numeric_limits<double>::quiet_NaN();
  double value = 0;
  std::from_chars(text_.data(), text_.data() + text_.size(), value);
  return value;
}

std::int64_t NSDecimalNumber::int64Value() const noexcept {
  std::int64_t value = 0;  // also for "NaN"
  const auto result = std::from_chars(text_.data(), text_.data() + text_.size(), value);
  if (result.ec != std::errc::result_out_of_range) return value;
  return text_.starts_with('-') ? std::numeric_limits<std::int64_t>::min()
                                : std::numeric_limits<std::int64_t>::max();
}
