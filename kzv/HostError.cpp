#include "kzv/HostError.h"

#include <cerrno>

#include <fmt/format.h>

#include "core/KZVConstants.h"
#include "core/PluginLoader.h"
#include "kzv/Formatting.h"

namespace kzv::cli {

NSErrorRef hostError(HostErrorCode code, std::string text) {
  return NSError::withText(KZVHostErrorDomain, static_cast<std::int64_t>(code), std::move(text));
}

NSErrorRef unlinkedError(std::string_view accountId) {
  return hostError(HostErrorCode::unlinked, fmt::format("the account {} is no longer linked", accountId));
}

NSErrorRef noSuchItemError() {
  return NSError::withText(NSPOSIXErrorDomain, ENOENT, "no such file or folder");
}

NSErrorRef stoppedError() { return NSError::withText(CanceledByUserErrorDomain, -1, "stopped"); }

bool isStop(const NSError& error) { return error.domain() == CanceledByUserErrorDomain; }

ExitStatus exitStatusFor(const NSError& error) {
  if (isStop(error)) return ExitStatus::stopped;
  if (error.domain() == KZVPluginLoaderErrorDomain &&
      error.code() == static_cast<std::int64_t>(PluginLoaderError::refusedSettings))
    return ExitStatus::usage;
  if (error.domain() != KZVHostErrorDomain) return ExitStatus::failed;
  switch (static_cast<HostErrorCode>(error.code())) {
    case HostErrorCode::noAccount:
    case HostErrorCode::unlinked:
      return ExitStatus::noAccount;
    case HostErrorCode::badInput:
      return ExitStatus::usage;
    case HostErrorCode::notSupported:
    case HostErrorCode::internal:
      break;
  }
  return ExitStatus::failed;
}

std::string failureLine(std::string_view verb, std::string_view path, const NSError& error) {
  // A stop made by the plug-in carries no text of its own.
  const std::string reason = isStop(error) ? "stopped" : error.localizedDescription();
  return fmt::format("kzv: {}: {}{}{} ({} {})", verb, harmless(path), path.empty() ? "" : ": ",
                     harmless(reason), error.domain(), error.code());
}

}  // namespace kzv::cli
