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

/// Every linked account and its tokens, shared by all clients. Tokens are kept in the desktop's secret
/// service, or where there is none in a file of mode 0600 in a folder of mode 0700 (below dataFolder()); they
/// are bound to the origin that gave them: another one (KZV_SERVICE_URL) has accounts of its own. Any thread;
/// calls that change the store block for as long as the disk or the secret service takes.
///
/// Other processes link, renew and unlink accounts, too. When the service rejects a token, the store is read
/// again before the account is given up: a newer linking or token is adopted and the request is repeated with
/// it.
class DBSession final : public NSObject {
 public:
  /// Reads the stored accounts of `appKey`.
  DBSession(std::string appKey, std::string appSecret, std::string_view root);
  ~DBSession() override;

  /// The process's session; empty before the plug-in's start-up.
  static std::shared_ptr<DBSession> sharedSession();
  static void setSharedSession(std::shared_ptr<DBSession> session);

  const std::string& appKey() const noexcept;
  const std::string& root() const noexcept;
  /// Account ids in the order of linking.
  std::vector<std::string> userIds() const;
  bool hasUserId(std::string_view userId) const;  // cheaper than a copy of userIds()
  bool isLinked() const;
  /// Why accounts may be missing: the store could not be read, or not all of it. Empty when all was read.
  NSErrorRef storeError() const;
  /// Reads the store again while storeError() is set, and adds what was missing. Blocks.
  void readStoreAgainIfIncomplete();
  /// The origin that stands in for the service, empty for the service itself: what settings about accounts
  /// belong to, as the accounts themselves do.
  const std::string& origin() const noexcept;
  /// The delegate is not retained; null for none.
  void setDelegate(DBSessionDelegate* delegate);

  /// Adds or replaces an account (which keeps its place) and stores it. False with an unchanged session when
  /// the store refuses.
  bool linkCredential(const DBCredential& credential, NSErrorRef* error);
  /// Forgets the account, first here and in the store; then revokes its token in the background, best effort.
  /// Requests of the account that are under way fail as usual. An account whose authorization was lost is
  /// forgotten only as far as that linking goes: a newer one in the store is adopted, and the account stays.
  void unlinkUserId(const std::string& userId);
  /// The same, but waits at most `patience` for the revocation. False with an error when the store refuses,
  /// or when the revocation fails (DBErrorNotRevoked, with a text that says what to do by hand).
  bool unlinkAndRevoke(const std::string& userId, std::chrono::milliseconds patience, NSErrorRef* error);
  /// Whether the linking that the delegate was notified of is still the account's only one. Reads the store
  /// (blocks) and adopts a newer linking, in which case it returns false. Also false when the store cannot be
  /// read: nothing may be deleted then.
  bool isAuthorizationLost(const std::string& userId);
  /// Waits until revocations in the background have ended, at most `seconds`.
  void waitForBackgroundWork(double seconds);

  // For the client layer itself.
  struct Internals;
  Internals& internals() noexcept { return *internals_; }

 private:
  const std::shared_ptr<Internals> internals_;  // requests under way hold it, too
};
