#include "foundation/Fatal.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "plugin/KZVDropboxFS.h"

// The caller's error is not passed on, on purpose: a panel that cannot show free space shows none and says
// nothing.
std::shared_ptr<NSDictionary> KZVDropboxFS::fsAttributes(const std::string& /*path*/, NSErrorRef* /*error*/) {
  const auto info = requiredManager().accountInfo(nullptr);
  if (!info) return nullptr;
  const DBQuota& quota = info->quota();
  std::int64_t freeBytes = 0;
  if (__builtin_sub_overflow(quota.totalBytes, quota.totalConsumedBytes, &freeBytes)) {
    fatalInvariant("a quota's difference fits 64 bits");
  }
  return NSDictionary::with({{NSFileSystemSize, NSNumber::withInt(quota.totalBytes)},
                             {NSFileSystemFreeSize, NSNumber::withInt(freeBytes)}});
}
