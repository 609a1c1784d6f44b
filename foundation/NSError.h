#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/NSDictionary.h"
#include "foundation/NSObject.h"

inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view NSFilePathErrorKey = "NSFilePath";
/// Codes are errno values.
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

class NSError;
using NSErrorRef = std::shared_ptr<NSError>;

/// Why something failed: a domain, a code within it, and details for users and callers.
class NSError final : public NSObject {
 public:
  static constexpr NSKind staticKind = NSKind::error;
  /// `userInfo` may be empty (no details).
  NSError(std::string domain, std::int64_t code, std::shared_ptr<NSDictionary> userInfo = nullptr);
  /// An error with a text for the user (NSLocalizedDescriptionKey) and further details; empty details are
  /// omitted.
  using Details = std::initializer_list<std::pair<std::string_view, id>>;
  static NSErrorRef withText(std::string_view domain, std::int64_t code, std::string text, Details more = {});
  /// An error in NSPOSIXErrorDomain with the system's text for `errnoValue`, prefixed with `path` (may be
  /// empty).
  static NSErrorRef posix(int errnoValue, std::string_view path);

  const std::string& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  const std::shared_ptr<NSDictionary>& userInfo() const noexcept { return userInfo_; }
  /// The detail under a string key, or nothing.
  id detail(std::string_view key) const { return userInfo_ ? userInfo_->objectForKey(key) : nullptr; }
  /// The text under NSLocalizedDescriptionKey, else the domain: some errors have their message there.
  std::string localizedDescription() const;

  std::size_t hash() const override;
  bool isEqual(const NSObject& other) const override;
  std::string description() const override;
  NSKind kind() const noexcept override { return staticKind; }

 private:
  const std::string domain_;
  const std::int64_t code_;
  const std::shared_ptr<NSDictionary> userInfo_;
};

/// Stores `reason` in `*error`; `error` may be null.
inline void setError(NSErrorRef* error, NSErrorRef reason) {
  if (error) *error = std::move(reason);
}
