#include "host/mount/MountErrors.h"

#include <cerrno>

#include "core/KZVConstants.h"

int errnoOf(const NSErrorRef& error) {
  if (!error) return ENOENT;
  const auto code = error->code();
  if (error->domain() == NSPOSIXErrorDomain) return code > 0 ? static_cast<int>(code) : EIO;
  if (error->domain() == CanceledByUserErrorDomain) return EINTR;
  switch (code) {
    case 400:
      return EINVAL;
    case 401:
    case 403:
      return EACCES;
    case 404:
      return ENOENT;
    case 406:
      return EFBIG;
    case 409:
      return EEXIST;
    case 415:
      return EOPNOTSUPP;
    case 429:
    case 503:
      return EBUSY;
    case 507:
      return ENOSPC;
    default:
      return EIO;
  }
}

bool isTransient(const NSErrorRef& error) {
  if (!error || error->domain() == NSPOSIXErrorDomain || error->domain() == CanceledByUserErrorDomain)
    return false;
  const auto code = error->code();
  return code < 0 || code == 429 || (code >= 500 && code != 507);
}
