#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/NSObject.h"

/// In bytes. Consumed may exceed total; total is 0 for an unknown kind of allocation.
struct DBQuota {
  std::int64_t totalBytes = 0;
  std::int64_t totalConsumedBytes = 0;
};

/// The parts of an account to load, each with its own request. Parts that were not loaded are empty.
enum class DBAccountParts { all, identity, quota };

/// The service's description of an account. Immutable, so any thread may use it.
class DBAccountInfo final : public NSObject {
 public:
  DBAccountInfo(std::string userId, std::string displayName, std::string email, DBQuota quota)
      : userId_(std::move(userId)),
        displayName_(std::move(displayName)),
        email_(std::move(email)),
        quota_(quota) {}

  const std::string& userId() const noexcept { return userId_; }
  const std::string& displayName() const noexcept { return displayName_; }  // empty: none
  const std::string& email() const noexcept { return email_; }              // empty: none
  const DBQuota& quota() const noexcept { return quota_; }

 private:
  const std::string userId_;
  const std::string displayName_;
  const std::string email_;
  const DBQuota quota_;
};
