#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Guarded.h"
#include "foundation/NSNotificationCenter.h"
#include "sdk/DBRestClient.h"

/// Posted by the helper, with itself as the object, at each state change of a sign-in, on the thread of the
/// change. User info: none, or after a failure one entry "error" with the NSError.
inline constexpr std::string_view DBAuthHelperOSXStateChangedNotification =
    "DBAuthHelperOSXStateChangedNotification";

/// Links a new account: requests the service's sign-in page, shows it in the browser, and when the person
/// returns to the application exchanges the authorization code for tokens, which the shared session stores.
///
///   idle --authenticate--> requesting token --begun--> waiting for the user --activation--> requesting
///   access token --linked--> idle; a failure leads back to idle, or to waiting for the user while the
///   sign-in can still succeed.
///
/// Every transition posts DBAuthHelperOSXStateChangedNotification exactly once. Any thread; the client's
/// callbacks come on the thread that called authenticate, which must run its run loop: the service thread.
class DBAuthHelperOSXfix final : public NSObject,
                                 public DBRestClientDelegate,
                                 public std::enable_shared_from_this<DBAuthHelperOSXfix> {
 public:
  using SignInCode = DBRestClient::SignInCode;

  /// The only helper, never released.
  static const std::shared_ptr<DBAuthHelperOSXfix>& sharedHelper();

  DBAuthHelperOSXfix() = default;  // must be owned by a shared_ptr, which notifications carry
  ~DBAuthHelperOSXfix() override;
  std::string className() const override { return "DBAuthHelperOSXfix"; }

  /// Starts a sign-in, replacing one that waits for the user. Does nothing while isLoading().
  void authenticate(SignInCode code = SignInCode::byRedirect);
  /// Cancels the current sign-in, if any, without a notification. Once this has returned it opens no page and
  /// links no account. Blocks until the service thread has done so.
  void cancel();
  /// The number of calls of cancel(): a sign-in that was requested before the last one must not start.
  std::uint64_t cancelCount() const { return cancelCount_; }
  /// Whether a sign-in page is being requested. False while tokens are being requested.
  bool isLoading() const { return loading; }
  /// The client of the sign-in, created if there is none.
  std::shared_ptr<DBRestClient> restClient();
  /// @param error  may be null.
  void postStateChangedNotification(const NSErrorRef& error);
  /// Observes NSApplicationDidBecomeActiveNotification while a sign-in waits for the user.
  void applicationDidBecomeActive(const NSNotification& notification);

  /// Takes a code that the person copied from the page; the next activation exchanges it for tokens. False
  /// when the text cannot be a code or no sign-in is pending.
  bool useAuthorizationCode(const std::string& code);
  /// Whether a sign-in is pending, so that a reported failure need not be its end.
  bool isSigningIn() const;
  /// The id of the account that a sign-in has linked; returned only once.
  std::optional<std::string> takeLinkedUserId();

  void restClientLoadedRequestToken(DBRestClient& client) override;
  void loadRequestTokenFailedWithError(DBRestClient& client, const NSErrorRef& error) override;
  void restClientReceivedAuthorization(DBRestClient& client) override;
  void restClientLoadedAccessToken(DBRestClient& client, const std::string& userId) override;
  void loadAccessTokenFailedWithError(DBRestClient& client, const NSErrorRef& error) override;

 private:
  void endSignIn();
  void requestAccessToken(std::shared_ptr<DBRestClient> client);

  Guarded<std::shared_ptr<DBRestClient>> restClient_;
  std::atomic<bool> loading{false};
  std::atomic<std::uint64_t> cancelCount_{0};
  Guarded<std::optional<std::string>> linkedUserId_;
};
