#include "sdk/ServiceCall.h"

#include <random>
#include <utility>

#include "sdk/DBError.h"

namespace kzv::sdk {

namespace {

double randomFraction() {
  thread_local std::minstd_rand generator(std::random_device{}());
  return std::uniform_real_distribution<double>(0, 1)(generator);
}

bool mayHaveBeenCarriedOut(const HttpResponse& response) {
  if (response.timesSent == 0) return false;
  return response.curlCode != 0 || response.timesSent > 1 ||
         (response.status >= 500 && response.status != 503);
}

const std::string& originFor(ServiceRequest::Style style, const DBServiceHosts& hosts) {
  switch (style) {
    case ServiceRequest::Style::contentUpload:
    case ServiceRequest::Style::contentDownload:
      return hosts.content;
    case ServiceRequest::Style::notify:
      return hosts.notify;
    default:
      return hosts.api;
  }
}

}  // namespace

ServiceCall::ServiceCall(std::shared_ptr<DBSession::Internals> session, ActingFor actingFor,
                         ServiceRequest request, std::shared_ptr<NSRunLoop> deliverOn, Handler handler)
    : session_(std::move(session)),
      actingFor_(std::move(actingFor)),
      request_(std::move(request)),
      deliverOn_(std::move(deliverOn)),
      handler_(std::move(handler)),
      retryPolicy_(request_.shortRetries) {}

std::shared_ptr<ServiceCall> ServiceCall::start(std::shared_ptr<DBSession::Internals> session,
                                                ActingFor actingFor, ServiceRequest request,
                                                std::shared_ptr<NSRunLoop> deliverOn, Handler handler) {
  auto call = std::make_shared<ServiceCall>(std::move(session), std::move(actingFor), std::move(request),
                                            std::move(deliverOn), std::move(handler));
  call->begin();
  return call;
}

void ServiceCall::begin() {
  if (session_->hosts.refusal) {
    fail(session_->hosts.refusal);
    return;
  }
  if (!actingFor_.userId.empty()) {
    auto authorization = session_->authorization(actingFor_.userId);
    if (!authorization) {
      fail(requestError(DBErrorNotLinked, "the account is not linked", request_.about));
      return;
    }
    return sendWith(*authorization);
  }
  send();
}

void ServiceCall::sendWith(const Authorization& authorization) {
  authorization_ = authorization;
  if (authorization_.expiresSoon && !authorization_.refreshToken.empty()) {
    session_->network->perform([self = shared_from_this()] { self->renewToken({}); });
  } else {
    send();
  }
}

HttpRequest ServiceCall::httpRequest() const {
  HttpRequest http;
  const bool isToken = request_.style == ServiceRequest::Style::token;
  http.url = originFor(request_.style, session_->hosts) + (isToken ? "/oauth2/" : "/2/") + request_.route;
  http.timeLimit = request_.timeLimit;
  const std::string& token = actingFor_.userId.empty() ? actingFor_.bearerToken : authorization_.accessToken;
  if (!token.empty()) http.headers.push_back("Authorization: Bearer " + token);
  switch (request_.style) {
    case ServiceRequest::Style::rpc:
    case ServiceRequest::Style::notify:
      http.headers.emplace_back("Content-Type: application/json");
      http.body = request_.argument;
      break;
    case ServiceRequest::Style::token:
      http.headers.emplace_back("Content-Type: application/x-www-form-urlencoded");
      http.body = request_.argument;
      break;
    case ServiceRequest::Style::rpcWithoutArgument:
      http.headers.emplace_back("Content-Type:");  // the form type that libcurl would send is refused
      break;
    case ServiceRequest::Style::contentUpload:
      http.headers.emplace_back("Content-Type: application/octet-stream");
      http.headers.push_back("Dropbox-API-Arg: " + request_.argument);
      http.source = request_.source;
      break;
    case ServiceRequest::Style::contentDownload:
      http.headers.emplace_back("Content-Type:");
      http.headers.push_back("Dropbox-API-Arg: " + request_.argument);
      http.sink = request_.sink;
      break;
  }
  return http;
}

void ServiceCall::send() {
  if (ended_) return;
  if (request_.takesTurn && !hasTurn_) return waitForTurn();
  transfer_ = std::make_shared<HttpTransfer>();
  transfer_->request = httpRequest();
  if (request_.source) request_.source->rewind();  // this may be a repetition
  transfer_->done = [self = shared_from_this()](HttpResponse& response) { self->received(response); };
  session_->network->start(transfer_);
}

void ServiceCall::waitForTurn() {
  session_->network->perform([self = shared_from_this()] {
    if (self->ended_) return;
    self->turnWait_ = self->session_->writeTurns.enter(self->actingFor_.userId, [self] {
      self->turnWait_.reset();
      self->hasTurn_ = true;
      self->send();
    });
  });
}

void ServiceCall::releaseTurn(WriteTurns::Outcome outcome) {
  if (std::exchange(hasTurn_, false)) session_->writeTurns.leave(actingFor_.userId, outcome);
}

/// Adapts the number of concurrent uploads to the service's answers.
void ServiceCall::noteOutcome(const HttpResponse& response) {
  const bool isContention = RetryPolicy::isContention(response);
  if (isContention && !hasTurn_) session_->writeTurns.narrow(actingFor_.userId);
  const bool isRefused = isContention || (response.curlCode == 0 && response.status == 429);
  releaseTurn(isRefused              ? WriteTurns::Outcome::refused
              : response.isSuccess() ? WriteTurns::Outcome::stored
                                     : WriteTurns::Outcome::failed);
}

void ServiceCall::received(HttpResponse& response) {
  const auto ended = std::exchange(transfer_, nullptr);  // holds `response`
  noteOutcome(response);
  if (ended_) return;
  if (response.isSuccess()) {
    answer_.response = std::move(response);
    finish();
    return;
  }
  mayHaveBeenCarriedOut_ |= mayHaveBeenCarriedOut(response);
  if (repairAuthorization(response) || repeatLater(response)) return;
  answer_.error = response.isDamaged ? requestError(DBErrorInvalidResponse,
                                                    "the content was damaged in transit", request_.about)
                                     : errorFromResponse(response, request_.about);
  answer_.mayHaveBeenCarriedOut = mayHaveBeenCarriedOut_;
  answer_.response = std::move(response);
  finish();
}

/// True when the request continues with another token than the refused one.
bool ServiceCall::repairAuthorization(const HttpResponse& response) {
  if (response.curlCode != 0 || response.status != 401 || actingFor_.userId.empty()) return false;
  if (hasErrorTag(response, "expired_access_token")) {
    if (tokenRenewed_ || authorization_.refreshToken.empty()) return false;
    renewToken(response);
    return true;
  }
  if (!hasErrorTag(response, "invalid_access_token")) return false;
  const auto current = session_->authorization(actingFor_.userId);
  const bool wasReplaced = current && current->accessToken != authorization_.accessToken;
  if (wasReplaced && !tokenRenewed_) {  // by a renewal or a new linking while this request was in flight
    tokenRenewed_ = true;
    authorization_ = *current;
    send();
    return true;
  }
  if (!hasLookedInStore_) {
    lookInStore(response, errorFromResponse(response, request_.about));
    return true;
  }
  answer_.lostLinking = authorization_.linking;
  return false;
}

/// After a token was refused for good: another process may have stored a newer one.
/// @param error  the request's error if there is none.
void ServiceCall::lookInStore(HttpResponse refused, NSErrorRef error) {
  hasLookedInStore_ = true;
  answer_.response = std::move(refused);
  answer_.error = std::move(error);
  session_->tokenRefresh.findNewer(*session_, actingFor_.userId, authorization_.accessToken,
                                   [self = shared_from_this()](const TokenRefresh::Outcome& outcome) {
                                     if (!self->ended_) self->lookedInStore(outcome.result);
                                   });
}

void ServiceCall::lookedInStore(TokenRefresh::Result result) {
  const auto current = session_->authorization(actingFor_.userId);
  if (result == TokenRefresh::Result::renewed && current) {
    answer_ = {};
    tokenRenewed_ = false;
    return sendWith(*current);
  }
  // If the store cannot be read, the account does not count as lost: the next request checks again.
  if (result != TokenRefresh::Result::failed) answer_.lostLinking = authorization_.linking;
  finish();
}

/// @param refused  the answer that refused the old token; without a status before the first attempt.
void ServiceCall::renewToken(HttpResponse refused) {
  if (ended_) return;
  tokenRenewed_ = refused.status != 0;
  session_->tokenRefresh.renew(*session_, actingFor_.userId, authorization_.accessToken,
                               [self = shared_from_this(),
                                refused = std::move(refused)](const TokenRefresh::Outcome& outcome) mutable {
                                 if (!self->ended_) self->tokenRenewed(outcome, refused);
                               });
}

void ServiceCall::tokenRenewed(const TokenRefresh::Outcome& outcome, HttpResponse& refused) {
  const bool stillUsable = refused.status == 0 && !authorization_.hasExpired;
  if (outcome.result == TokenRefresh::Result::failed && stillUsable) {
    send();  // the old token has not expired yet
    return;
  }
  auto current = session_->authorization(actingFor_.userId);
  if (outcome.result == TokenRefresh::Result::notLinked || !current) {
    fail(requestError(DBErrorNotLinked, "the account is no longer linked", request_.about));
    return;
  }
  if (outcome.result == TokenRefresh::Result::renewed) {
    authorization_ = std::move(*current);
    send();
    return;
  }
  if (outcome.result == TokenRefresh::Result::authorizationLost) {
    auto error =
        requestError(401, "the authorization is no longer valid; link the account again", request_.about);
    if (!hasLookedInStore_) return lookInStore(std::move(refused), std::move(error));
    answer_.lostLinking = authorization_.linking;
    answer_.error = std::move(error);
    answer_.response = std::move(refused);
    finish();
    return;
  }
  answer_.response = std::move(refused);
  fail(outcome.error);
}

/// True when the request will be sent again.
bool ServiceCall::repeatLater(const HttpResponse& response) {
  const bool wasRefused =
      ((response.status == 429 || response.status == 503) && response.retryAfterSeconds.has_value()) ||
      RetryPolicy::isContention(response);
  if (request_.repeat == ServiceRequest::Repeat::never ||
      (request_.repeat == ServiceRequest::Repeat::whenRefused && !wasRefused)) {
    return false;
  }
  const auto wait = retryPolicy_.waitBeforeRepeating(response, randomFraction());
  if (!wait) return false;
  timer_ = session_->network->performAfter(*wait, [self = shared_from_this()] {
    self->timer_.reset();
    self->send();
  });
  return true;
}

void ServiceCall::fail(NSErrorRef error) {
  answer_.error = std::move(error);
  finish();
}

void ServiceCall::finish() {
  auto deliver = [self = shared_from_this(), handler = std::exchange(handler_, nullptr)] {
    if (!self->ended_.exchange(true)) handler(self->answer_);
  };
  if (deliverOn_) {
    deliverOn_->perform(std::move(deliver));
  } else {
    session_->network->perform(std::move(deliver));
  }
}

void ServiceCall::cancel() {
  if (ended_.exchange(true)) return;
  session_->network->perform([self = shared_from_this()] { self->abort(); });
}

void ServiceCall::abort() {
  if (transfer_) session_->network->cancel(std::exchange(transfer_, nullptr));
  if (timer_) session_->network->cancelTimer(*std::exchange(timer_, std::nullopt));
  if (turnWait_) session_->writeTurns.withdraw(actingFor_.userId, *std::exchange(turnWait_, std::nullopt));
  releaseTurn(WriteTurns::Outcome::failed);
  handler_ = nullptr;
}

}  // namespace kzv::sdk
