#include "sdk/Revocation.h"

#include <boost/json.hpp>
#include <utility>

#include "sdk/TokenRefresh.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

void Revocation::start(std::shared_ptr<DBSession::Internals> session, const DBCredential& credential,
                       Done done) {
  const auto revocation = std::make_shared<Revocation>(std::move(session), credential, std::move(done));
  const bool hasExpired =
      credential.expiresAtUnixSeconds != 0 && credential.expiresAtUnixSeconds <= unixNow();
  hasExpired && !credential.refreshToken.empty() ? revocation->renew() : revocation->revoke();
}

Revocation::Revocation(std::shared_ptr<DBSession::Internals> session, const DBCredential& credential,
                       Done done)
    : session_(std::move(session)), credential_(credential), done_(std::move(done)) {}

void Revocation::revoke() {
  ServiceRequest request;
  request.style = ServiceRequest::Style::rpcWithoutArgument;
  request.route = "auth/token/revoke";
  request.repeat = ServiceRequest::Repeat::always;
  request.about.action = "revoke the authorization of the account";
  ServiceCall::start(session_, {"", credential_.accessToken}, std::move(request), nullptr,
                     [self = shared_from_this()](ServiceAnswer& answer) { self->revoked(answer); });
}

void Revocation::revoked(const ServiceAnswer& answer) {
  if (!answer.error) return done_(nullptr);
  const bool isTokenDead = hasErrorTag(answer.response, "expired_access_token") ||
                           hasErrorTag(answer.response, "invalid_access_token");
  if (!isTokenDead) return done_(answer.error);
  // The refresh token may still be valid; without one nothing is left to revoke.
  if (credential_.refreshToken.empty()) return done_(nullptr);
  hasRenewed_ ? done_(answer.error) : renew();
}

void Revocation::renew() {
  hasRenewed_ = true;
  ServiceCall::start(session_, {}, refreshRequest(*session_, credential_.refreshToken), nullptr,
                     [self = shared_from_this()](ServiceAnswer& answer) { self->renewed(answer); });
}

void Revocation::renewed(const ServiceAnswer& answer) {
  if (answer.error) {
    const bool hasEnded = oauthErrorOf(answer.response) == "invalid_grant";
    return done_(hasEnded ? nullptr : answer.error);
  }
  const auto document = servicejson::Document::parseSecret(answer.response.body);
  const auto token = document ? servicejson::text(document->root(), "access_token") : std::nullopt;
  if (!token || token->empty())
    return done_(invalidResponseError(answer.response, {"revoke the authorization of the account", ""}));
  credential_.accessToken = *token;
  revoke();
}

}  // namespace kzv::sdk
