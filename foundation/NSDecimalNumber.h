#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "foundation/NSNumber.h"

/// An exact decimal number: up to 38 significant digits and an exponent of ten from -128 to 127.
class NSDecimalNumber final : public NSNumber {
 public:
  /// Reads [+-]digits[.digits][(e|E)[+-]digits]. More than 38 digits are rounded half up. Nothing when the
  /// text is malformed or the exponent is out of range.
  static std::shared_ptr<NSDecimalNumber> fromString(std::string_view text);
  /// The stringValue of the number that `text` denotes; nothing as with fromString.
  static std::optional<std::string> canonicalText(std::string_view text);
  /// A constant; equal only to itself.
  static const std::shared_ptr<NSDecimalNumber>& notANumber();

  /// `text` is a canonicalText(), or "NaN". For callers that allocate the object themselves; others use
  /// fromString.
  explicit NSDecimalNumber(std::string text) : NSNumber(Origin::decimal), text_(std::move(text)) {}

  std::int64_t int64Value() const noexcept override;
  double doubleValue() const noexcept override;
  bool isNaN() const noexcept override { return text_ == "NaN"; }
  /// Without an exponent ("1000", "0.001"), without trailing zeros after the point; minus zero is "0".
  std::string stringValue() const override { return text_; }
  const std::string& text() const noexcept { return text_; }

 private:
  const std::string text_;
};

/// NSDecimalNumber shares NSNumber's kind; the origin distinguishes them.
template <>
inline NSDecimalNumber* as<NSDecimalNumber>(NSObject* object) {
  auto* number = as<NSNumber>(object);
  return number && number->origin() == NSNumber::Origin::decimal ? static_cast<NSDecimalNumber*>(number)
                                                                 : nullptr;
}
