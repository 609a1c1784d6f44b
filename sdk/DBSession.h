#pragma once
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"
#include "foundation/Secrets.h"

class DBSession;

/// The whole account, as opposed to one application's folder in it.
inline constexpr std::string_view kDBRootDropbox = "dropbox";

/// Notified when the service has rejected an account's authorization for good and no newer one is stored:
/// once per account and linking, on the run loop of the failed request, after that request's failure
/// callback.
class DBSessionDelegate {
 public:
  virtual ~DBSessionDelegate() = default;
  virtual void sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId) = 0;
};

/// The credentials of one account. Secret: never logged or shown; the tokens are cleared on destruction.
struct DBCredential {
  std::string userId;  // the service's account id
  std::string accessToken;
  std::string refreshToken;               // empty: the access token cannot be renewed
  std::int64_t expiresAtUnixSeconds = 0;  // 0: does not expire, as far as we know

  ~DBCredential() {
    clearSecret(accessToken);
    clearSecret(refreshToken);
  }
};

/// Every linked account and its tokens, shared by all clients. Tokens are stored in the desktop's secret
/// service, or if there is none in a file of mode 0600 in a folder of mode 0700 (below dataFolder()). They
/// are bound to the origin that issued them: another one (KZV_SERVICE_URL) has its own accounts. Any thread;
/// calls that change the store block for the disk or the secret service.
///
/// Other processes link, renew and unlink accounts, too. When the service rejects a token, the store is read
/// again before the account counts as lost: a newer linking or token is adopted and the request is repeated
/// with it.
class DBSession final : public NSObject {
 public:
  /// Reads the stored accounts of `appKey`. Blocks.
  DBSession(std::string appKey, std::string appSecret, std::string_view root);
  ~DBSession() override;

  /// The process's session; null before the plug-in's start-up.
  static std::shared_ptr<DBSession> sharedSession();
  static void setSharedSession(std::shared_ptr<DBSession> session);

  const std::string& appKey() const noexcept;
  const std::string& root() const noexcept;
  /// Account ids in the order of linking.
  std::vector<std::string> userIds() const;
  bool hasUserId(std::string_view userId) const;  // cheaper than a copy of userIds()
  bool isLinked() const;
  /// Why accounts may be missing: the store could not be read, or only in part. Null when all was read.
  NSErrorRef storeError() const;
  /// Reads the store again if storeError() is set, and adds missing accounts. Blocks.
  void readStoreAgainIfIncomplete();
  /// The origin of the service's stand-in, empty for the service itself. Accounts and settings about them
  /// belong to one origin.
  const std::string& origin() const noexcept;
  /// The delegate is not retained; null for none.
  void setDelegate(DBSessionDelegate* delegate);

  /// Adds an account, or replaces it in its place, and stores it. False with an unchanged session when the
  /// store fails.
  bool linkCredential(const DBCredential& credential, NSErrorRef* error);
  /// Removes the account from memory and the store, then revokes its token in the background, best effort.
  /// Requests in flight fail as usual. If the account's authorization was lost, only that linking is removed:
  /// a newer one in the store is adopted, and the account stays.
  void unlinkUserId(const std::string& userId);
  /// The same, but waits at most `timeout` for the revocation. False with an error when the store fails, or
  /// when the revocation fails (DBErrorNotRevoked, with a text that says what to do by hand).
  bool unlinkAndRevoke(const std::string& userId, std::chrono::milliseconds timeout, NSErrorRef* error);
  /// Whether the linking that the delegate was notified of is still the account's only one. Reads the store
  /// (blocks) and adopts a newer linking, in which case it returns false. Also false when the store cannot be
  /// read: nothing may be deleted then.
  bool isAuthorizationLost(const std::string& userId);
  /// Blocks until background revocations have ended, at most for `seconds`.
  void waitForBackgroundWork(double seconds);

  // For the client layer itself.
  struct Internals;
  Internals& internals() noexcept { return *internals_; }

 private:
  const std::shared_ptr<Internals> internals_;  // requests in flight hold it, too
};
