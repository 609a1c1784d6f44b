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

/// Posted by the helper, with itself as the object, at each transition of a sign-in, on the thread where it
/// happens. User info: none, or for a failure one entry "error" with the NSError.
inline constexpr std::string_view DBAuthHelperOSXStateChangedNotification =
    "DBAuthHelperOSXStateChangedNotification";

/// Links a new account: asks for the service's sign-in page, shows it in the browser, and when the person
/// comes back to the application trades their approval for tokens, which the shared session keeps.
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

  /// The one helper, never released.
  static const std::shared_ptr<DBAuthHelperOSXfix>& sharedHelper();

  DBAuthHelperOSXfix() = default;  // REQUIRES a shared_ptr as its owner: notifications carry it
  ~DBAuthHelperOSXfix() override;
  std::string className() const override { return "DBAuthHelperOSXfix"; }

  /// Starts a sign-in, or starts it anew while one waits for the user. Does nothing while isLoading().
  void authenticate(SignInCode code = SignInCode::byRedirect);
  /// Gives up the sign-in that is under way, if there is one; nobody is notified. Once this has returned no
  /// page opens and no account is linked for it. Waits for the service thread, which does it.
  void cancel();
  /// How often cancel() has been called: a sign-in that was asked for before the last time must not begin.
  std::uint64_t cancelCount() const { return cancelCount_; }
  /// Whether a sign-in page is being asked for. False also while tokens are being asked for.
  bool isLoading() const { return loading; }
  /// The client that carries the sign-in, made when there is none.
  std::shared_ptr<DBRestClient> restClient();
  /// `error` may be empty.
  void postStateChangedNotification(const NSErrorRef& error);
  /// Observer of NSApplicationDidBecomeActiveNotification while a sign-in waits for the user.
  void applicationDidBecomeActive(const NSNotification& notification);

  /// A code that the person copied from the page; the next activation trades it. False when the text cannot
  /// be one or no sign-in waits.
  bool useAuthorizationCode(const std::string& code);
  /// Whether a sign-in is under way, so that a failure that has been reported need not be its end.
  bool isSigningIn() const;
  /// The account that a sign-in has linked; reported once.
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
