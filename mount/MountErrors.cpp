#include "mount/MountErrors.h"

#include <cerrno>

#include "core/FSError.h"

namespace kzv::mount {

int errnoOf(const NSErrorRef& error) {
  if (!error) return ENOENT;
  if (error->domain() == NSPOSIXErrorDomain) return error->code() > 0 ? static_cast<int>(error->code()) : EIO;
  switch (fsErrorCode(error)) {
    case FSErrorCode::notFound:
      return ENOENT;
    case FSErrorCode::exists:
    case FSErrorCode::conflict:
      return EEXIST;
    case FSErrorCode::isFolder:
      return EISDIR;
    case FSErrorCode::notFolder:
      return ENOTDIR;
    case FSErrorCode::notEmpty:
      return ENOTEMPTY;
    case FSErrorCode::nameRefused:
      return EINVAL;
    case FSErrorCode::denied:
      return EACCES;
    case FSErrorCode::noSpace:
      return ENOSPC;
    case FSErrorCode::tooLarge:
      return EFBIG;
    case FSErrorCode::busy:
      return EBUSY;
    case FSErrorCode::stopped:
      return EINTR;
    case FSErrorCode::unsupported:
      return EOPNOTSUPP;
    case FSErrorCode::connection:
    case FSErrorCode::damaged:
    case FSErrorCode::internal:
      break;
  }
  return EIO;
}

bool isTransient(const NSErrorRef& error) {
  if (!error || error->domain() == NSPOSIXErrorDomain) return false;
  const FSErrorCode code = fsErrorCode(error);
  return code == FSErrorCode::busy || code == FSErrorCode::connection || code == FSErrorCode::damaged;
}

}  // namespace kzv::mount
