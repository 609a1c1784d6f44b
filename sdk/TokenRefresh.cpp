#include "sdk/TokenRefresh.h"

#include <boost/json.hpp>

#include "foundation/DispatchQueue.h"
#include "sdk/DBError.h"
#include "sdk/ServiceCall.h"
#include "sdk/wire/FormText.h"
#include "sdk/wire/ServiceJson.h"

namespace kzv::sdk {

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

void TokenRefresh::renew(DBSession::Internals& session, const std::string& userId,
                         const std::string& staleToken, Done done) {
  const auto current = session.authorization(userId);
  if (!current) return done({Result::notLinked, nullptr});
  if (current->accessToken != staleToken) return done({Result::renewed, nullptr});
  const Key key(userId, current->linking);
  auto& waiting = renewals_[key];
  waiting.push_back(std::move(done));
  if (waiting.size() > 1) return;  // one request is in flight

  auto handler = [this, key, keep = session.shared_from_this()](ServiceAnswer& answer) {
    if (answer.error) {
      const bool isWithdrawn = oauthErrorOf(answer.response) == "invalid_grant";
      finish(renewals_, key, {isWithdrawn ? Result::authorizationLost : Result::failed, answer.error});
      return;
    }
    const auto document = servicejson::Document::parseSecret(answer.response.body);
    const auto token = document ? servicejson::text(document->root(), "access_token") : std::nullopt;
    if (!token || token->empty()) {
      finish(renewals_, key,
             {Result::failed, invalidResponseError(answer.response, {"renew the authorization", ""})});
      return;
    }
    keep->keepRenewedToken(key.first, key.second, std::string(*token),
                           expiryAfter(servicejson::integer(document->root(), "expires_in")));
    finish(renewals_, key, {Result::renewed, nullptr});
  };
  ServiceCall::start(session.shared_from_this(), {}, refreshRequest(session, current->refreshToken), nullptr,
                     std::move(handler));
}

void TokenRefresh::findNewer(DBSession::Internals& session, const std::string& userId,
                             const std::string& refusedToken, Done done) {
  const auto current = session.authorization(userId);
  const Key key(userId, current ? current->linking : 0);
  auto& waiting = lookUps_[key];
  waiting.push_back(std::move(done));
  if (waiting.size() > 1) return;
  DispatchQueue::global().async([this, key, refusedToken, keep = session.shared_from_this()] {
    using StoredToken = DBSession::Internals::StoredToken;
    const StoredToken stored = keep->adoptNewerToken(key.first, refusedToken);
    keep->network->perform([this, key, stored, keep] {
      const Result result = stored == StoredToken::newer        ? Result::renewed
                            : stored == StoredToken::unreadable ? Result::failed
                                                                : Result::authorizationLost;
      finish(lookUps_, key, {result, nullptr});
    });
  });
}

void TokenRefresh::finish(Waiting& waiting, const Key& key, const Outcome& outcome) {
  const auto all = std::move(waiting[key]);
  waiting.erase(key);
  for (const Done& done : all) done(outcome);
}

}  // namespace kzv::sdk
