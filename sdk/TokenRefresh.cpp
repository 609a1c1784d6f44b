#include "sdk/TokenRefresh.h"

#include "sdk/DBError.h"
#include "sdk/FormText.h"
#include "sdk/ServiceCall.h"
#include "sdk/ServiceJson.h"

namespace {

ServiceRequest refreshRequest(const DBSession::Internals& session, const std::string& refreshToken) {
  ServiceRequest request;
  request.style = ServiceRequest::Style::token;
  request.route = "token";
  request.argument = formText({{"grant_type", "refresh_token"},
                               {"refresh_token", refreshToken},
                               {"client_id", session.appKey},
                               {"client_secret", session.appSecret}});
  request.repeat = ServiceRequest::Repeat::always;
  request.about.action = "renew the authorization of the account";
  return request;
}

}  // namespace

void TokenRefresh::renew(DBSession::Internals& session, const std::string& userId,
                         const std::string& staleToken, Done done) {
  const auto current = session.authorization(userId);
  if (!current) return done({Result::notLinked, nullptr});
  if (current->accessToken != staleToken) return done({Result::renewed, nullptr});
  const Key key(userId, current->linking);
  auto& waiting = waiting_[key];
  waiting.push_back(std::move(done));
  if (waiting.size() > 1) return;  // one request is under way

  auto handler = [this, key, keep = session.shared_from_this()](ServiceAnswer& answer) {
    if (answer.error) {
      const bool isWithdrawn = oauthErrorOf(answer.response) == "invalid_grant";
      finish(key, {isWithdrawn ? Result::authorizationLost : Result::failed, answer.error});
      return;
    }
    const auto document = servicejson::Document::parse(answer.response.body);
    const auto token = document ? servicejson::text(document->root(), "access_token") : std::nullopt;
    if (!token || token->empty()) {
      finish(key, {Result::failed, invalidResponseError(answer.response, {"renew the authorization", ""})});
      return;
    }
    keep->keepRenewedToken(key.first, key.second, std::string(*token),
                           expiryAfter(servicejson::integer(document->root(), "expires_in")));
    finish(key, {Result::renewed, nullptr});
  };
  ServiceCall::start(session.shared_from_this(), {}, refreshRequest(session, current->refreshToken), nullptr,
                     std::move(handler));
}

void TokenRefresh::finish(const Key& key, const Outcome& outcome) {
  const auto waiting = std::move(waiting_[key]);
  waiting_.erase(key);
  for (const Done& done : waiting) done(outcome);
}
