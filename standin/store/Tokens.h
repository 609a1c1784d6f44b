#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "standin/store/Clock.h"
#include "standin/store/Store.h"

namespace kzv::standin {

/// A decision on the sign-in page, to be exchanged for tokens by a code.
struct Approval {
  std::int64_t account = 0;
  std::string client;
  /// From the page's request; may be empty.
  std::string redirectUri;
  /// PKCE (RFC 7636); empty without.
  std::string challenge;
  bool challengeIsPlain = false;
  /// Space-separated.
  std::string scope;
  /// With a refresh token.
  bool offline = false;
};

struct IssuedTokens {
  std::string accessToken;
  std::int64_t expiresInSeconds = 0;
  /// Empty without `offline`.
  std::string refreshToken;
  std::string scope;
  std::int64_t account = 0;
};

enum class RefreshFailure { none, unknownToken, otherClient, scopeNotGranted };

enum class TokenState { valid, expired, invalid };

struct TokenCheck {
  TokenState state = TokenState::invalid;
  std::int64_t account = 0;
  std::string client;
  std::string scope;
};

/// Codes, access tokens and refresh tokens. Only digests are stored, so the database reveals no token. Codes
/// are in memory; with `--data` tokens survive a restart. Thread-safe. Errors: DatabaseError.
class Tokens {
 public:
  Tokens(Store& store, const Clock& clock);

  /// All scopes, space-separated.
  static const std::string& allScopes();

  /// Returns a code for one use within ten minutes.
  std::string issueCode(Approval approval);
  /// Removes the code, also if it has expired: a code works once.
  /// @return absent when it is unknown, used or expired.
  std::optional<Approval> takeCode(const std::string& code);

  /// A new grant with its first tokens.
  IssuedTokens grant(const Approval& approval);
  /// A new access token for a refresh token. @param scope  narrower than granted, or empty.
  /// @return absent with the reason in `failure`.
  std::optional<IssuedTokens> refresh(const std::string& refreshToken, const std::string& client,
                                      const std::string& scope, RefreshFailure& failure);

  /// A ready token that does not expire, with all scopes; for tests that skip the sign-in.
  void addReadyToken(std::int64_t account, const std::string& token);

  TokenCheck check(const std::string& accessToken) const;
  /// Revokes the token's grant: the refresh token and all access tokens.
  void revoke(const std::string& accessToken);
  /// The same for all grants of an account.
  void revokeAccount(std::int64_t account);

  /// Lifetime of access tokens issued from now on.
  void setLifetime(std::int64_t seconds) { lifetimeSeconds_ = seconds; }

 private:
  struct Grant {
    std::int64_t account = 0;
    std::string client;
    std::string scope;
    /// Digest; empty without a refresh token.
    std::string refreshDigest;
  };
  struct Access {
    std::int64_t grant = 0;
    std::string scope;
    std::int64_t expires = 0;
  };
  struct Code {
    Approval approval;
    std::int64_t expires = 0;
  };

  void load();
  std::string issueAccess(std::int64_t grant, const std::string& scope);
  std::int64_t addGrant(const Grant& grant);
  void storeAccess(const std::string& digest, const Access& access);
  void dropGrant(std::int64_t grant);

  Store& store_;
  const Clock& clock_;
  std::atomic<std::int64_t> lifetimeSeconds_{14400};
  mutable std::mutex mutex_;
  std::map<std::int64_t, Grant> grants_;         // guarded by mutex_; by number
  std::map<std::string, Access> accessTokens_;   // guarded by mutex_; by digest
  std::map<std::string, std::int64_t> refresh_;  // guarded by mutex_; digest of the refresh token to grant
  std::map<std::string, Code> codes_;            // guarded by mutex_; by digest
};

/// True when `wanted` is among the space-separated `scopes`.
bool hasScope(std::string_view scopes, std::string_view wanted);

/// PKCE: whether the verifier matches the challenge. (RFC 7636, section 4.6)
bool verifierMatches(const Approval& approval, const std::string& verifier);

}  // namespace kzv::standin
