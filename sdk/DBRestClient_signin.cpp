#include <boost/json.hpp>
#include <utility>

#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/wire/ServiceJson.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;

namespace {

std::optional<DBCredential> credentialOf(const HttpResponse& response) {
  const auto document = Document::parse(response.body);
  const json::object* answer = document ? &document->root() : nullptr;
  const auto userId = answer ? servicejson::text(*answer, "account_id") : std::nullopt;
  const auto token = answer ? servicejson::text(*answer, "access_token") : std::nullopt;
  if (!userId || userId->empty() || !token || token->empty()) return std::nullopt;
  return DBCredential{std::string(*userId), std::string(*token),
                      std::string(servicejson::text(*answer, "refresh_token").value_or("")),
                      expiryAfter(servicejson::integer(*answer, "expires_in"))};
}

/// Trades the code that came back from the service's page for tokens.
class CodeExchange final : public ClientOperation {
 public:
  explicit CodeExchange(ImplRef client)
      : ClientOperation(std::move(client), {"sign in", ""}), signIn_(client_->signIn()) {}

  // Also when it is cancelled: the next attempt then shows whether the code is still valid.
  ~CodeExchange() override {
    if (isExchanging_) signIn_->endExchange();
  }
  CodeExchange(const CodeExchange&) = delete;
  CodeExchange& operator=(const CodeExchange&) = delete;

  void start() {
    if (!signIn_) return failLater(requestError(400, "no sign-in has been started", about_));
    const SignIn::State state = signIn_->state();
    if (state == SignIn::State::expired) {
      client_->setSignIn(nullptr);
      return failLater(requestError(
          DBErrorSignInExpired, "the sign-in was not finished within its 10 minutes; begin again", about_));
    }
    if (state == SignIn::State::denied) {
      client_->setSignIn(nullptr);
      return failLater(requestError(403, "the sign-in was declined", about_));
    }
    // A code works once: a second exchange while one is under way would only spoil it.
    if (state == SignIn::State::waiting || !signIn_->beginExchange()) {
      return failLater(
          requestError(DBErrorAuthorizationPending, "the sign-in has not been approved yet", about_));
    }
    isExchanging_ = true;
    ServiceRequest request;
    request.style = ServiceRequest::Style::token;
    request.route = "token";
    request.argument = signIn_->tokenForm(client_->session()->appKey());
    request.repeat = ServiceRequest::Repeat::whenRefused;
    request.about = about_;
    client_->sendFor(operation_, {}, std::move(request), handler(&CodeExchange::received));
  }

 private:
  void received(const ServiceAnswer& answer) {
    if (answer.error) {
      if (oauthErrorOf(answer.response) == "invalid_grant") endSignIn();
      return fail(answer);
    }
    endSignIn();
    const auto credential = credentialOf(answer.response);
    if (!credential) return failInvalid(answer.response);
    client_->linkAndFinish(operation_, *credential);
  }

  /// Does nothing when a new sign-in has replaced it.
  void endSignIn() {
    if (client_->signIn() == signIn_) client_->setSignIn(nullptr);
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadAccessTokenFailedWithError(client, error);
  }

  const std::shared_ptr<SignIn> signIn_;
  bool isExchanging_ = false;
};

}  // namespace

std::shared_ptr<SignIn> DBRestClient::Impl::signIn() const {
  const std::lock_guard lock(mutex_);
  return signIn_;
}

void DBRestClient::Impl::setSignIn(std::shared_ptr<SignIn> signIn) {
  const std::lock_guard lock(mutex_);
  signIn_.swap(signIn);  // the old one waits for its listener, outside of the lock
}

void DBRestClient::loadRequestToken(SignInCode code) {
  const auto operation = impl_->beginOperation();
  if (const NSErrorRef& refusal = impl_->session()->internals().hosts.refusal) {
    impl_->performLater(operation, [impl = impl_, operation, refusal] {
      impl->finish(operation, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
        delegate.loadRequestTokenFailedWithError(client, refusal);
      });
    });
    return;
  }
  impl_->setSignIn(nullptr);  // its port is needed again
  auto notify = [weak = std::weak_ptr(impl_)] {
    const auto impl = weak.lock();
    if (!impl) return;
    impl->notify([](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.restClientReceivedAuthorization(client);
    });
  };
  const auto signIn = std::make_shared<SignIn>(
      code == SignInCode::byRedirect, [notify, runLoop = operation->runLoop] { runLoop->perform(notify); });
  impl_->setSignIn(signIn);
  operation->runLoop->addTimer(std::make_shared<NSTimer>(
      SignIn::timeLimit(),
      [notify, weak = std::weak_ptr(signIn)](NSTimer& /*timer*/) {
        const auto late = weak.lock();
        if (late && late->expire()) notify();
      },
      false));
  impl_->performLater(operation, [impl = impl_, operation] {
    impl->finish(operation, [](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.restClientLoadedRequestToken(client);
    });
  });
}

bool DBRestClient::requestTokenLoaded() const { return impl_->signIn() != nullptr; }

std::string DBRestClient::authorizeURL() const {
  const auto signIn = impl_->signIn();
  const DBSession::Internals& session = impl_->session()->internals();
  return signIn ? signIn->pageAddress(session.hosts.web, session.appKey) : std::string();
}

bool DBRestClient::useAuthorizationCode(const std::string& code) {
  const auto signIn = impl_->signIn();
  return signIn && signIn->takeCode(code);
}

void DBRestClient::withdrawSignIn() { impl_->withdrawLinking(); }

void DBRestClient::loadAccessToken() { std::make_shared<CodeExchange>(impl_)->start(); }
