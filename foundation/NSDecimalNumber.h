#pragma once
#include <optional>
#include <string_view>

#include "foundation/NSNumber.h"

/// A decimal number: up to 38 significant digits and an exponent of ten from -128 to 127, exact from its
/// text.
class NSDecimalNumber final : public NSNumber {
 public:
  /// Reads [+-]digits[.digits][(e|E)[+-]digits]. More than 38 digits are rounded half up. Nothing when the
  /// text has another form or the exponent is out of range.
  static std::shared_ptr<NSDecimalNumber> fromString(std::string_view text);
  /// The one constant; equal to itself only.
  static const std::shared_ptr<NSDecimalNumber>& notANumber();

  std::int64_t int64Value() const noexcept override;
  double doubleValue() const noexcept override;
  bool isNaN() const noexcept override { return isNaN_; }
  /// Never with an exponent ("1000", "0.001"), without trailing zeros after the point; minus zero is "0".
  std::string stringValue() const override;

 private:
  __extension__ using Mantissa = unsigned __int128;  // 38 digits need 127 bits

 public:  // for make_shared; use fromString and notANumber
  struct Parts {
    Mantissa mantissa = 0;  // without trailing zeros
    int exponent = 0;
    bool isNegative = false;
    bool isNaN = false;
  };
  explicit NSDecimalNumber(const Parts& parts);
  /// What fromString makes its object of, for who has memory for the object already.
  static std::optional<Parts> partsOf(std::string_view text);

 private:
  const Mantissa mantissa_;
  const int exponent_;
  const bool isNegative_;
  const bool isNaN_;
};

/// Shares the kind of all numbers, so the origin decides.
template <>
inline NSDecimalNumber* as<NSDecimalNumber>(NSObject* object) {
  auto* number = as<NSNumber>(object);
  return number && number->origin() == NSNumber::Origin::decimal ? static_cast<NSDecimalNumber*>(number)
                                                                 : nullptr;
}
