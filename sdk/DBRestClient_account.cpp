#include <boost/json.hpp>
#include <cerrno>
#include <utility>

#include "foundation/DispatchQueue.h"
#include "sdk/ClientInternals.h"
#include "sdk/wire/ServiceJson.h"
#include "sdk/wire/ServiceText.h"

using namespace kzv::sdk;

namespace json = boost::json;
using servicejson::Document;

namespace {

struct AccountFields {
  std::string userId, displayName, email;
};

std::optional<AccountFields> accountFields(const HttpResponse& response) {
  const auto document = Document::parse(response.body);
  const auto userId = document ? servicejson::text(document->root(), "account_id") : std::nullopt;
  if (!userId || userId->empty()) return std::nullopt;
  AccountFields fields{std::string(*userId), "",
                       serviceText(servicejson::text(document->root(), "email").value_or(""))};
  if (const json::object* name = servicejson::object(document->root(), "name")) {
    fields.displayName = serviceText(servicejson::text(*name, "display_name").value_or(""));
  }
  return fields;
}

/// A member with a limit of its own within a team's space is shown that limit, any other the team's. Nothing
/// for amounts that cannot be: less than none, or 2^63 and more.
std::optional<DBQuota> quota(const HttpResponse& response) {
  const auto document = Document::parse(response.body);
  const json::object* allocation = document ? servicejson::object(document->root(), "allocation") : nullptr;
  if (!allocation || !document->root().contains("used")) return std::nullopt;
  bool isUnderstood = true;
  const auto bytes = [&](const json::object& object, std::string_view key) {
    const std::int64_t amount = object.contains(key) ? servicejson::integer(object, key).value_or(-1) : 0;
    isUnderstood = isUnderstood && amount >= 0;
    return amount;
  };
  DBQuota quota{0, bytes(document->root(), "used")};
  const auto tag = servicejson::text(*allocation, ".tag");
  if (tag == "individual") quota.totalBytes = bytes(*allocation, "allocated");
  if (tag == "team") {
    quota = {bytes(*allocation, "user_within_team_space_allocated"),
             bytes(*allocation, "user_within_team_space_used_cached")};
    if (quota.totalBytes == 0) quota = {bytes(*allocation, "allocated"), bytes(*allocation, "used")};
  }
  return isUnderstood ? std::optional(quota) : std::nullopt;
}

ServiceRequest accountRequest(std::string route, const RequestDescription& about) {
  ServiceRequest request;
  request.style = ServiceRequest::Style::rpcWithoutArgument;
  request.route = std::move(route);
  request.repeat = ServiceRequest::Repeat::always;
  request.about = about;
  return request;
}

/// The account and its space, asked for at the same time; all that was wanted is needed.
class AccountLoad final : public ClientOperation {
 public:
  AccountLoad(ImplRef client, DBAccountParts parts)
      : ClientOperation(std::move(client), {"load the information of the account", ""}) {
    if (parts == DBAccountParts::quota) fields_.emplace();
    if (parts == DBAccountParts::identity) quota_.emplace();
  }

  void start() {
    if (!fields_) send(accountRequest("users/get_current_account", about_), &AccountLoad::receivedFields);
    if (!quota_) send(accountRequest("users/get_space_usage", about_), &AccountLoad::receivedQuota);
  }

 private:
  void receivedFields(const ServiceAnswer& answer) { received(answer, fields_, accountFields); }
  void receivedQuota(const ServiceAnswer& answer) { received(answer, quota_, quota); }

  template <class Part, class Read>
  void received(const ServiceAnswer& answer, std::optional<Part>& part, Read read) {
    if (answer.error) return fail(answer);
    part = read(answer.response);
    if (!part) return failInvalid(answer.response);
    if (!fields_ || !quota_) return;
    const auto info =
        std::make_shared<DBAccountInfo>(fields_->userId, fields_->displayName, fields_->email, *quota_);
    finish([&](DBRestClientDelegate& delegate, DBRestClient& client) {
      delegate.loadedAccountInfo(client, info);
    });
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadAccountInfoFailedWithError(client, error);
  }

  std::optional<AccountFields> fields_;
  std::optional<DBQuota> quota_;
};

/// What a person or the service handed over: a bare token, or a token answer as JSON. Nothing for an empty
/// text, one with a control character (it could not travel in a header), or JSON without a token.
std::optional<DBCredential> credentialFromToken(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return std::nullopt;
  text = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
  DBCredential credential;
  if (text.front() == '{') {
    const auto document = Document::parse(text);
    if (!document) return std::nullopt;
    credential.accessToken = servicejson::text(document->root(), "access_token").value_or("");
    credential.refreshToken = servicejson::text(document->root(), "refresh_token").value_or("");
    credential.expiresAtUnixSeconds = expiryAfter(servicejson::integer(document->root(), "expires_in"));
  } else {
    credential.accessToken = text;
  }
  const bool isPrintable = credential.accessToken.find_first_not_of(
                               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~+/=") ==
                           std::string::npos;  // RFC 6750, 2.1
  if (credential.accessToken.empty() || !isPrintable) return std::nullopt;
  return credential;
}

/// Finds out whose token it is, and links that account.
class TokenAdoption final : public ClientOperation {
 public:
  explicit TokenAdoption(ImplRef client) : ClientOperation(std::move(client), {"link the account", ""}) {}

  void start(const std::string& token) {
    auto credential = credentialFromToken(token);
    if (!credential) return failLater(requestError(400, "this is not an access token", about_));
    credential_ = std::move(*credential);
    client_->sendFor(operation_, {"", credential_.accessToken},
                     accountRequest("users/get_current_account", about_),
                     handler(&TokenAdoption::receivedAccount));
  }

 private:
  void receivedAccount(const ServiceAnswer& answer) {
    if (answer.error) return fail(answer);
    const auto fields = accountFields(answer.response);
    if (!fields) return failInvalid(answer.response);
    credential_.userId = fields->userId;
    client_->linkAndFinish(operation_, credential_);
  }

  void notifyFailure(DBRestClientDelegate& delegate, DBRestClient& client, const NSErrorRef& error) override {
    delegate.loadAccessTokenFailedWithError(client, error);
  }

  DBCredential credential_;
};

}  // namespace

void DBRestClient::Impl::linkAndFinish(const OperationRef& operation, const DBCredential& credential) {
  // The store may take its time; the callbacks' thread may not.
  DBSession::Internals& session = session_->internals();
  DispatchQueue::global().async(
      [&session, self = shared_from_this(), operation, credential, work = session.backgroundWork()] {
        NSErrorRef error;
        const bool isLinked = session.link(credential, self->isWithdrawn_, &error);
        // Nobody will use these tokens, nor can anybody find them to revoke them later.
        if (!isLinked && error->code() == ECANCELED) session.revokeInBackground(credential);
        self->performLater(operation, [self, operation, isLinked, error, userId = credential.userId] {
          self->finish(operation, [&](DBRestClientDelegate& delegate, DBRestClient& client) {
            isLinked ? delegate.restClientLoadedAccessToken(client, userId)
                     : delegate.loadAccessTokenFailedWithError(client, error);
          });
        });
      });
}

void DBRestClient::Impl::withdrawLinking() { session_->internals().withdraw(isWithdrawn_); }

void DBRestClient::loadAccountInfo(DBAccountParts parts) {
  std::make_shared<AccountLoad>(impl_, parts)->start();
}

void DBRestClient::adoptAccessToken(const std::string& token) {
  std::make_shared<TokenAdoption>(impl_)->start(token);
}
