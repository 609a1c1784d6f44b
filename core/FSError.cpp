#include "core/FSError.h"

#include <cerrno>
#include <utility>

#include "core/KZVConstants.h"
#include "foundation/NSNumber.h"

namespace {

FSErrorCode codeOfErrno(std::int64_t value) {
  switch (value) {
    case ENOENT:
      return FSErrorCode::notFound;
    case EEXIST:
      return FSErrorCode::exists;
    case EISDIR:
      return FSErrorCode::isFolder;
    case ENOTDIR:
      return FSErrorCode::notFolder;
    case ENOTEMPTY:
      return FSErrorCode::notEmpty;
    case EINVAL:
    case EILSEQ:
    case ENAMETOOLONG:
      return FSErrorCode::nameRefused;
    case EACCES:
    case EPERM:
    case EROFS:
      return FSErrorCode::denied;
    case ENOSPC:
    case EDQUOT:
      return FSErrorCode::noSpace;
    case EFBIG:
      return FSErrorCode::tooLarge;
    case EBUSY:
      return FSErrorCode::busy;
    case ENOTSUP:
      return FSErrorCode::unsupported;
    default:
      return FSErrorCode::internal;
  }
}

}  // namespace

NSErrorRef fsError(FSErrorCode code, std::string text, NSErrorRef underlying,
                   std::optional<std::chrono::seconds> retryAfter) {
  return NSError::withText(
      FSErrorDomain, static_cast<std::int64_t>(code), std::move(text),
      {{NSUnderlyingErrorKey, std::move(underlying)},
       {FSErrorRetryAfterKey, retryAfter ? NSNumber::withInt(retryAfter->count()) : nullptr}});
}

FSErrorCode fsErrorCode(const NSErrorRef& error) {
  if (!error) return FSErrorCode::notFound;
  const std::int64_t code = error->code();
  if (error->domain() == CanceledByUserErrorDomain) return FSErrorCode::stopped;
  if (error->domain() == NSPOSIXErrorDomain) return codeOfErrno(code);
  const bool isKnown = error->domain() == FSErrorDomain &&
                       code >= static_cast<std::int64_t>(FSErrorCode::notFound) &&
                       code <= static_cast<std::int64_t>(FSErrorCode::internal);
  return isKnown ? static_cast<FSErrorCode>(code) : FSErrorCode::internal;
}

std::optional<std::chrono::seconds> fsErrorRetryAfter(const NSErrorRef& error) {
  const auto seconds = error ? as<NSNumber>(error->detail(FSErrorRetryAfterKey)) : nullptr;
  return seconds ? std::optional(std::chrono::seconds(seconds->int64Value())) : std::nullopt;
}
