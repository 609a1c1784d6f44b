#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "foundation/NSError.h"
#include "sdk/DBSession.h"

namespace kzv::sdk {

struct ServiceRequest;

/// Renews access tokens (RFC 6749, section 6): one request at a time per account, whose outcome all callers
/// get. Network thread only.
class TokenRefresh {
 public:
  enum class Result {
    renewed,            // the session has another access token than the stale one
    failed,             // a later attempt may succeed
    authorizationLost,  // the service has withdrawn it: the account must be linked again
    notLinked
  };
  struct Outcome {
    Result result = Result::failed;
    NSErrorRef error;  // unless renewed or notLinked
  };
  using Done = std::function<void(const Outcome&)>;

  /// @param staleToken  the access token that was refused or expires soon.
  /// @param done        called on the network thread, perhaps before this returns.
  void renew(DBSession::Internals& session, const std::string& userId, const std::string& staleToken,
             Done done);
  /// Looks in the store for a newer token than one that the service has refused for good: another process may
  /// have linked the account anew, or renewed the token. `renewed`: it is in use now; `failed`: the store
  /// cannot be read; `authorizationLost`: there is none.
  /// @param done  called on the network thread, later.
  void findNewer(DBSession::Internals& session, const std::string& userId, const std::string& refusedToken,
                 Done done);

 private:
  using Key = std::pair<std::string, std::uint64_t>;  // account and its linking
  using Waiting = std::map<Key, std::vector<Done>>;
  static void finish(Waiting& waiting, const Key& key, const Outcome& outcome);

  Waiting renewals_;
  Waiting lookUps_;
};

/// The request that renews an access token. Secret.
ServiceRequest refreshRequest(const DBSession::Internals& session, const std::string& refreshToken);

}  // namespace kzv::sdk
