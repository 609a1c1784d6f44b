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

/// Renews access tokens (RFC 6749, section 6): one request at a time per account, however many requests need
/// it; all of them get its outcome. Network thread only.
class TokenRefresh {
 public:
  enum class Result {
    renewed,            // the session holds another access token than the stale one
    failed,             // try again another time
    authorizationLost,  // the service has withdrawn it: the account must be linked again
    notLinked
  };
  struct Outcome {
    Result result = Result::failed;
    NSErrorRef error;  // unless renewed or notLinked
  };
  using Done = std::function<void(const Outcome&)>;

  /// @param staleToken  the access token that was refused or ends soon.
  /// @param done        on the network thread, perhaps before this returns.
  void renew(DBSession::Internals& session, const std::string& userId, const std::string& staleToken,
             Done done);

 private:
  using Key = std::pair<std::string, std::uint64_t>;  // account and its linking
  void finish(const Key& key, const Outcome& outcome);

  std::map<Key, std::vector<Done>> waiting_;
};
