#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/NSError.h"
#include "kzv/ExitStatus.h"

namespace kzv::cli {

/// The program's own errors. Those of the plug-in and of the system are passed on unchanged.
inline constexpr std::string_view KZVHostErrorDomain = "KZVHostErrorDomain";
enum class HostErrorCode : std::int64_t {
  noAccount = 1,     // none linked, no such one, or several and none chosen
  unlinked = 2,      // the account was unlinked while in use
  badInput = 3,      // invalid arguments or input
  notSupported = 4,  // the loaded plug-in does not support it
  internal = 5,
};

NSErrorRef hostError(HostErrorCode code, std::string text);
/// "the account ID is no longer linked" (HostErrorCode::unlinked).
NSErrorRef unlinkedError(std::string_view accountId);
/// "no such file or folder" (NSPOSIXErrorDomain, ENOENT).
NSErrorRef noSuchItemError();
/// The user's stop (CanceledByUserErrorDomain, -1).
NSErrorRef stoppedError();

bool isStop(const NSError& error);
ExitStatus exitStatusFor(const NSError& error);
/// "kzv: VERB: PATH: reason (domain code)", without PATH and its colon when `path` is empty; safe for a
/// terminal.
std::string failureLine(std::string_view verb, std::string_view path, const NSError& error);

}  // namespace kzv::cli
