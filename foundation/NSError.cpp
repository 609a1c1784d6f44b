#include "foundation/NSError.h"

#include <system_error>

#include <fmt/format.h>

#include "foundation/NSString.h"

NSError::NSError(std::string domain, std::int64_t code, std::shared_ptr<NSDictionary> userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

NSErrorRef NSError::withText(std::string_view domain, std::int64_t code, std::string text, Details more) {
  NSDictionary::Entries details;
  details.reserve(more.size() + 1);
  details.emplace_back(str(std::string(NSLocalizedDescriptionKey)), str(std::move(text)));
  for (const auto& [key, value] : more) {
    if (value) details.emplace_back(str(std::string(key)), value);
  }
  return std::make_shared<NSError>(std::string(domain), code,
                                   std::make_shared<NSDictionary>(std::move(details)));
}

NSErrorRef NSError::posix(int errnoValue, std::string_view path) {
  std::string reason = std::generic_category().message(errnoValue);
  if (!path.empty()) reason = fmt::format("{}: {}", path, reason);
  return withText(NSPOSIXErrorDomain, errnoValue, std::move(reason),
                  {{NSFilePathErrorKey, str(std::string(path))}});
}

std::string NSError::localizedDescription() const {
  const id described = detail(NSLocalizedDescriptionKey);
  const std::string* text = textOf(described);
  return text ? *text : domain_;
}

std::size_t NSError::hash() const {
  return std::hash<std::string>{}(domain_) ^ static_cast<std::size_t>(code_);
}

bool NSError::isEqual(const NSObject& other) const {
  const auto* error = as<NSError>(&other);
  if (!error || error->domain_ != domain_ || error->code_ != code_) return false;
  return userInfo_ == error->userInfo_ ||
         (userInfo_ && error->userInfo_ && userInfo_->isEqual(*error->userInfo_));
}

std::string NSError::description() const {
  return fmt::format("{} ({} {})", localizedDescription(), domain_, code_);
}
