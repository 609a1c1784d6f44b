#pragma once
#include <string>
#include <string_view>
#include <utility>

#include "foundation/NSObject.h"

/// A text in generalised UTF-8: a lone surrogate is stored in its three-byte form. Equality is bytewise.
class NSString final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::string;
  explicit NSString(std::string text) : text_(std::move(text)) {}
  NSString(const char* bytes, std::size_t sizeBytes) : text_(bytes, sizeBytes) {}

  const std::string& text() const noexcept { return text_; }
  std::size_t hash() const override { return std::hash<std::string_view>{}(text_); }
  bool isEqual(const NSObject& other) const override {
    const auto* string = as<NSString>(&other);
    return string && string->text_ == text_;
  }
  std::string description() const override { return text_; }
  NSKind kind() const noexcept override { return staticKind; }

 private:
  const std::string text_;
};

inline id str(std::string text) { return std::make_shared<NSString>(std::move(text)); }

/// The text of a string object, or null if `object` is empty or not a string.
inline const std::string* textOf(const id& object) {
  const auto* string = as<NSString>(object.get());
  return string ? &string->text() : nullptr;
}
