#pragma once
#include <functional>
#include <memory>

#include "sdk/ServiceCall.h"

namespace kzv::sdk {

/// Revokes the authorization of a credential (auth/token/revoke): its refresh token and all its access
/// tokens. An expired access token is renewed first, because only a valid one can be revoked. Network thread.
class Revocation : public std::enable_shared_from_this<Revocation> {
 public:
  /// `error` is null if the authorization is revoked now, or was invalid before.
  using Done = std::function<void(const NSErrorRef& error)>;

  /// Any thread; returns at once.
  /// @param done  on the network thread, once.
  static void start(std::shared_ptr<DBSession::Internals> session, const DBCredential& credential, Done done);

  Revocation(std::shared_ptr<DBSession::Internals> session, const DBCredential& credential, Done done);

 private:
  void revoke();
  void revoked(const ServiceAnswer& answer);
  void renew();
  void renewed(const ServiceAnswer& answer);

  const std::shared_ptr<DBSession::Internals> session_;
  DBCredential credential_;
  const Done done_;
  bool hasRenewed_ = false;
};

}  // namespace kzv::sdk
