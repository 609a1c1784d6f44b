#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "sdk/signin/LoopbackListener.h"

namespace kzv::sdk {

/// One browser sign-in: OAuth 2.0 authorization code grant with PKCE (RFC 6749, RFC 7636) over a loopback
/// redirect (RFC 8252), or with a code that the user copies from the page. Any thread.
class SignIn {
 public:
  enum class State { waiting, approved, denied, expired };

  /// Time limit of a sign-in: 10 minutes, unless a test changes it.
  static std::chrono::milliseconds timeLimit();
  static void setTimeLimit(std::chrono::milliseconds limit);

  /// @param useRedirect  false: the page shows the code, to be passed to takeCode.
  /// @param onAnswer     called on the listener's thread when the browser has delivered an answer, at most
  /// once.
  SignIn(bool useRedirect, std::function<void()> onAnswer);
  ~SignIn();

  /// The page's address at the service's web origin. Contains no secret.
  std::string pageAddress(std::string_view webOrigin, std::string_view appKey) const;
  State state() const;
  /// Expires the sign-in: later answers are ignored. False when it has been answered.
  bool expire();
  /// Takes a code that a person typed in, ignoring blanks around it. False when it cannot be one.
  bool takeCode(std::string_view code);
  /// False when the code is already being exchanged.
  bool beginExchange();
  void endExchange();
  /// The form that exchanges the code for tokens. Secret. REQUIRES State::approved.
  std::string tokenForm(std::string_view appKey) const;

  /// RFC 7636, 4.2: the S256 challenge of a verifier.
  static std::string challengeFor(std::string_view verifier);

 private:
  LoopbackListener::Page redirected(const std::string& query);

  std::string verifier_;  // never changes
  const std::string stateText_;
  const std::function<void()> onAnswer_;
  mutable std::mutex mutex_;
  State state_ = State::waiting;  // guarded by mutex_
  std::string code_;              // guarded by mutex_
  bool isExchanging_ = false;     // guarded by mutex_
  std::string redirectUri_;       // empty: the page shows the code; never changes after construction
  std::unique_ptr<LoopbackListener> listener_;  // last, so that its thread ends first
};

}  // namespace kzv::sdk
