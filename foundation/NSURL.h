#pragma once
#include <string>
#include <string_view>

#include "foundation/NSObject.h"

/// A URL as text (RFC 3986). File URLs contain the percent-encoded UTF-8 of an absolute path. Equality is
/// textual.
class NSURL final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::url;
  explicit NSURL(std::string absoluteString) : text_(std::move(absoluteString)) {}
  /// Nothing when `path` is not absolute or contains a NUL.
  static std::shared_ptr<NSURL> fileURLWithPath(std::string_view path);

  const std::string& absoluteString() const noexcept { return text_; }
  bool isFileURL() const noexcept { return text_.starts_with("file://"); }
  /// The decoded path of a file URL, without query and fragment. Empty for any other URL, and for one with a
  /// malformed escape, an escaped slash or an escaped NUL.
  std::string path() const;

  std::size_t hash() const override { return std::hash<std::string>{}(text_); }
  bool isEqual(const NSObject& other) const override {
    const auto* url = as<NSURL>(&other);
    return url && url->text_ == text_;
  }
  std::string description() const override { return text_; }
  NSKind kind() const noexcept override { return staticKind; }

 private:
  const std::string text_;
};
