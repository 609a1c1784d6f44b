#include <limits>

#include "foundation/NSByteCountFormatter.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"

namespace {

/// Negative for an account that uses more than its quota.
std::int64_t freeBytes(const DBQuota& quota) {
  std::int64_t free = 0;
  if (!__builtin_sub_overflow(quota.totalBytes, quota.totalConsumedBytes, &free)) return free;
  using Bytes = std::numeric_limits<std::int64_t>;
  return quota.totalBytes < 0 ? Bytes::min() : Bytes::max();
}

VolumeSpace spaceOf(const DBQuota& quota) { return {quota.totalBytes, freeBytes(quota)}; }

id textOrNothing(const std::string& text) { return text.empty() ? nullptr : str(text); }

}  // namespace

// Does not report errors, on purpose: a panel that cannot get the free space just shows none. space() reports
// them.
std::shared_ptr<NSDictionary> KZVDropboxFS::fsAttributes(const std::string& /*path*/, NSErrorRef* /*error*/) {
  const auto info = requiredManager().accountInfo(nullptr, DBAccountParts::quota);
  if (!info) return nullptr;
  return NSDictionary::with({{NSFileSystemSize, NSNumber::withInt(info->quota().totalBytes)},
                             {NSFileSystemFreeSize, NSNumber::withInt(freeBytes(info->quota()))}});
}

std::optional<VolumeSpace> KZVDropboxFS::space(NSErrorRef* error) {
  const auto info = requiredManager().accountInfo(ServiceErrors(error), DBAccountParts::quota);
  if (!info) return std::nullopt;
  return spaceOf(info->quota());
}

std::optional<AccountDetails> KZVDropboxFS::accountDetails(const std::string& userId, NSErrorRef* error) {
  const auto info = KZVDropboxFileManager::initWithUserId(userId)->accountInfo(ServiceErrors(error));
  if (!info) return std::nullopt;
  return AccountDetails{userId, info->email(), info->displayName(), spaceOf(info->quota())};
}

std::shared_ptr<NSDictionary> KZVDropboxFS::dropboxInfoFor(const std::string& userId) {
  const auto info = KZVDropboxFileManager::initWithUserId(userId)->accountInfo(nullptr);
  if (!info) return nullptr;
  return NSDictionary::with({{"id", str(userId)},
                             {"email", textOrNothing(info->email())},
                             {"name", textOrNothing(info->displayName())},
                             {"free", str(stringFromByteCount(freeBytes(info->quota())))},
                             {"total", str(stringFromByteCount(info->quota().totalBytes))}});
}
