#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sdk/DBServiceHosts.h"
#include "sdk/DBSession.h"
#include "sdk/TokenRefresh.h"
#include "sdk/credentials/CredentialStore.h"
#include "sdk/wire/NetworkThread.h"
#include "sdk/wire/WriteTurns.h"

namespace kzv::sdk {

/// Seconds since 1970 (POSIX).
std::int64_t unixNow();
/// When a token with that lifetime expires; 0 (never) without a lifetime. Impossible lifetimes are clamped to
/// the range from 0 to ten years.
std::int64_t expiryAfter(std::optional<std::int64_t> lifetimeSeconds);

/// The authorization of a request for an account. Secret.
struct Authorization {
  std::string accessToken;
  std::string refreshToken;   // empty: cannot be renewed
  std::uint64_t linking = 0;  // distinguishes successive linkings of an account
  bool expiresSoon = false;   // renew it before use
  bool hasExpired = false;

  ~Authorization() {
    clearSecret(accessToken);
    clearSecret(refreshToken);
  }
};

}  // namespace kzv::sdk

/// The state of a session that requests share. Lives until the last of them has ended. Any thread.
struct DBSession::Internals : std::enable_shared_from_this<DBSession::Internals> {
  Internals(std::string key, std::string secret, std::string_view rootName);

  const std::string appKey;
  const std::string appSecret;
  const std::string root;
  const DBServiceHosts hosts;
  const std::unique_ptr<kzv::sdk::CredentialStore> store;
  const std::shared_ptr<kzv::sdk::NetworkThread> network;
  kzv::sdk::TokenRefresh tokenRefresh;  // the network thread only
  kzv::sdk::WriteTurns writeTurns;      // the network thread only
  /// Set once an upload has arrived damaged: later ones announce their hash, so that the service itself
  /// refuses damaged data. Not from the start, because the file must then be read twice.
  std::atomic<bool> announcesHashes{false};

  /// Nothing when the account is not linked.
  std::optional<kzv::sdk::Authorization> authorization(const std::string& userId) const;
  /// Keeps a renewed token, unless the account was unlinked or linked again meanwhile, and stores it in the
  /// background.
  void keepRenewedToken(const std::string& userId, std::uint64_t linking, const std::string& accessToken,
                        std::int64_t expiresAtUnixSeconds);
  /// True the first time an account's linking is reported as no longer valid.
  bool noteAuthorizationFailure(const std::string& userId, std::uint64_t linking);
  DBSessionDelegate* currentDelegate() const;

  /// How the stored tokens of an account relate to one that the service has refused.
  enum class StoredToken {
    newer,      // and now in use
    refused,    // the same token
    gone,       // the account was unlinked
    unreadable  // unknown
  };
  /// Blocks for the store.
  StoredToken adoptNewerToken(const std::string& userId, const std::string& refusedToken);
  bool isAuthorizationLost(const std::string& userId);

  /// A flag that withdraws a linking until it is done.
  using Withdrawn = std::shared_ptr<bool>;  // guarded by mutex_ of the session that links
  /// @param withdrawn  null for a linking that cannot be withdrawn.
  bool link(const DBCredential& credential, const Withdrawn& withdrawn, NSErrorRef* error);
  /// Once this has returned, link() with `withdrawn` adds no account.
  void withdraw(const Withdrawn& withdrawn);
  void unlink(const std::string& userId);
  bool unlinkAndRevoke(const std::string& userId, std::chrono::milliseconds timeout, NSErrorRef* error);
  /// Revokes a token that is not used any more, in the background.
  void revokeInBackground(const DBCredential& credential);
  NSErrorRef storeError() const;
  void readStore();
  std::vector<std::string> userIds() const;
  bool hasUserId(std::string_view userId) const;
  void setDelegate(DBSessionDelegate* newDelegate);
  /// Counts as background work until it is released.
  std::shared_ptr<void> backgroundWork();
  void waitForBackgroundWork(double seconds);

 private:
  struct Account {
    DBCredential credential;
    std::uint64_t linking = 0;
    bool failureNoted = false;
  };
  bool isWithdrawn(const Withdrawn& withdrawn) const;
  void removeLost(const std::string& userId);
  std::vector<DBCredential> forget(const std::string& userId, NSErrorRef* storeError);
  Account* find(std::string_view userId);
  const Account* find(std::string_view userId) const;

  mutable std::mutex mutex_;
  std::vector<Account> accounts_;          // guarded by mutex_
  NSErrorRef storeError_;                  // guarded by mutex_
  std::uint64_t lastLinking_ = 0;          // guarded by mutex_
  DBSessionDelegate* delegate_ = nullptr;  // guarded by mutex_
  int pendingWork_ = 0;                    // guarded by mutex_
  std::condition_variable workEnded_;
  std::mutex storeMutex_;  // makes memory and store change in the same order; locked before mutex_
};
