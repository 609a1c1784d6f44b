#pragma once
#include <cstdint>
#include <string>

#include "foundation/NSObject.h"

/// A number that remembers which type it was made from. Numbers of equal value are equal, whatever their
/// origins; not-a-number equals only itself.
class NSNumber : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::number;
  /// `character` is a number made from a single byte: written to JSON as a boolean, otherwise treated as an
  /// integer.
  enum class Origin : unsigned char { boolean, character, integer, real, decimal };

  static std::shared_ptr<NSNumber> withBool(bool value);
  static std::shared_ptr<NSNumber> withChar(signed char value);
  static std::shared_ptr<NSNumber> withInt(std::int64_t value);
  static std::shared_ptr<NSNumber> withDouble(double value);

  Origin origin() const noexcept { return origin_; }
  bool boolValue() const noexcept;
  /// Truncated towards zero; saturates where a real or decimal does not fit, 0 for not-a-number.
  virtual std::int64_t int64Value() const noexcept;
  virtual double doubleValue() const noexcept;
  virtual bool isNaN() const noexcept;
  /// Integers and booleans plain, reals with 16 significant digits as printf's %g writes them.
  virtual std::string stringValue() const;

  std::size_t hash() const override;
  bool isEqual(const NSObject& other) const override;
  std::string description() const override { return stringValue(); }
  NSKind kind() const noexcept override { return staticKind; }

 protected:
  explicit NSNumber(Origin origin) : origin_(origin) {}

 private:
  struct Whole {};
  struct Real {};

 public:  // for make_shared; use the with… functions
  explicit NSNumber(std::int64_t integer) : NSNumber(Whole{}, Origin::integer, integer) {}
  NSNumber(Whole, Origin origin, std::int64_t value) : origin_(origin), integer_(value) {}
  NSNumber(Real, double value) : origin_(Origin::real), real_(value) {}

 private:
  const Origin origin_;
  union {
    std::int64_t integer_ = 0;
    double real_;
  };
};
