#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"

class DBSession;

/// The whole account, as opposed to one application's folder in it.
inline constexpr std::string_view kDBRootDropbox = "dropbox";

/// Told when the service says that an account's authorization is no longer valid: once per account and
/// linking, on the run loop of the request that failed, after that request's failure callback.
class DBSessionDelegate {
 public:
  virtual ~DBSessionDelegate() = default;
  virtual void sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId) = 0;
};

/// What is needed to act for one account. Secret: never log, never show.
struct DBCredential {
  std::string userId;  // the service's account id
  std::string accessToken;
  std::string refreshToken;               // empty: the access token cannot be renewed
  std::int64_t expiresAtUnixSeconds = 0;  // 0: does not expire, as far as we know
};

/// Every linked account and its tokens, shared by all clients. Tokens are kept in the desktop's secret
/// service, or where there is none in a file of mode 0600 in a folder of mode 0700 (below dataFolder()). Any
/// thread; calls that change the store block for as long as the disk or the secret service takes.
class DBSession final : public NSObject {
 public:
  /// Reads the stored accounts of `appKey`.
  DBSession(std::string appKey, std::string appSecret, std::string_view root);
  ~DBSession() override;

  /// The session everything uses after start-up; empty before.
  static std::shared_ptr<DBSession> sharedSession();
  static void setSharedSession(std::shared_ptr<DBSession> session);

  const std::string& appKey() const noexcept;
  const std::string& root() const noexcept;
  /// Account ids in the order of linking.
  std::vector<std::string> userIds() const;
  bool hasUserId(std::string_view userId) const;  // cheaper than a copy of userIds()
  bool isLinked() const;
  /// The delegate is not retained; null for none.
  void setDelegate(DBSessionDelegate* delegate);

  /// Adds or replaces an account (which keeps its place) and stores it. False with an unchanged session when
  /// the store refuses.
  bool linkCredential(const DBCredential& credential, NSErrorRef* error);
  /// Forgets the account, first here and in the store; then revokes its token in the background, best effort.
  /// Requests of the account that are under way fail as usual.
  void unlinkUserId(const std::string& userId);
  /// Waits until revocations in the background have ended, at most `seconds`.
  void waitForBackgroundWork(double seconds);

  // For the client layer itself.
  struct Internals;
  Internals& internals() noexcept { return *internals_; }

 private:
  const std::shared_ptr<Internals> internals_;  // requests under way hold it, too
};
