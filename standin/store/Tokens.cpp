#include "standin/store/Tokens.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "standin/Encoding.h"

namespace kzv::standin {
namespace {

constexpr std::int64_t kCodeSeconds = 600;

std::string newSecret(std::string_view prefix) {
  return std::string(prefix) + base64UrlEncode(randomBytes(48));
}

bool isVerifier(std::string_view text) {
  constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  return text.size() >= 43 && text.size() <= 128 && text.find_first_not_of(allowed) == std::string_view::npos;
}

bool isSubset(std::string_view wanted, std::string_view granted) {
  while (!wanted.empty()) {
    const auto end = wanted.find(' ');
    const auto scope = wanted.substr(0, end);
    if (!scope.empty() && !hasScope(granted, scope)) return false;
    wanted = end == std::string_view::npos ? std::string_view() : wanted.substr(end + 1);
  }
  return true;
}

}  // namespace

bool hasScope(std::string_view scopes, std::string_view wanted) {
  for (std::size_t at = 0; at <= scopes.size();) {
    const auto end = std::min(scopes.find(' ', at), scopes.size());
    if (scopes.substr(at, end - at) == wanted) return true;
    at = end + 1;
  }
  return false;
}

bool verifierMatches(const Approval& approval, const std::string& verifier) {
  if (!isVerifier(verifier)) return false;
  if (approval.challengeIsPlain) return verifier == approval.challenge;
  return base64UrlEncode(sha256(verifier)) == approval.challenge;
}

Tokens::Tokens(Store& store, const Clock& clock) : store_(store), clock_(clock) { load(); }

const std::string& Tokens::allScopes() {
  static const std::string scopes =
      "account_info.read files.content.read files.content.write files.metadata.read sharing.read "
      "sharing.write";
  return scopes;
}

void Tokens::load() {
  Store::Reader reader(store_);
  auto grants = reader.database().query("SELECT id, account, client, scope, refresh_hash FROM grants");
  while (grants.step()) {
    const Grant grant{grants.integer(1), std::string(grants.text(2)), std::string(grants.text(3)),
                      std::string(grants.blob(4))};
    grants_[grants.integer(0)] = grant;
    if (!grant.refreshDigest.empty()) refresh_[grant.refreshDigest] = grants.integer(0);
  }
  auto tokens = reader.database().query("SELECT hash, grant_id, scope, expires FROM access_tokens");
  while (tokens.step()) {
    accessTokens_[std::string(tokens.blob(0))] = {tokens.integer(1), std::string(tokens.text(2)),
                                                  tokens.integer(3)};
  }
}

std::string Tokens::issueCode(Approval approval) {
  std::string code = newSecret("");
  const std::lock_guard<std::mutex> lock(mutex_);
  codes_[sha256(code)] = {std::move(approval), clock_.now() + kCodeSeconds};
  return code;
}

std::optional<Approval> Tokens::takeCode(const std::string& code) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = codes_.find(sha256(code));
  if (found == codes_.end()) return std::nullopt;
  const Code taken = std::move(found->second);
  codes_.erase(found);
  if (taken.expires < clock_.now()) return std::nullopt;
  return taken.approval;
}

std::int64_t Tokens::addGrant(const Grant& grant) {
  std::int64_t id = 0;
  {
    Store::Writer writer(store_);
    writer.database().execute(
        "INSERT INTO grants(account, client, scope, refresh_hash) VALUES(?1, ?2, ?3, ?4)", grant.account,
        grant.client, grant.scope, Blob{grant.refreshDigest});
    id = writer.database().lastInsertId();
    writer.commit();
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  grants_[id] = grant;
  if (!grant.refreshDigest.empty()) refresh_[grant.refreshDigest] = id;
  return id;
}

void Tokens::storeAccess(const std::string& digest, const Access& access) {
  {
    Store::Writer writer(store_);
    writer.database().execute(
        "INSERT OR REPLACE INTO access_tokens(hash, grant_id, scope, expires) VALUES(?1, ?2, ?3, ?4)",
        Blob{digest}, access.grant, access.scope, access.expires);
    writer.commit();
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  accessTokens_[digest] = access;
}

std::string Tokens::issueAccess(std::int64_t grant, const std::string& scope) {
  std::string token = newSecret("sl.u.");
  storeAccess(sha256(token), {grant, scope, clock_.now() + lifetimeSeconds_});
  return token;
}

IssuedTokens Tokens::grant(const Approval& approval) {
  IssuedTokens issued;
  if (approval.offline) issued.refreshToken = newSecret("");
  issued.scope = approval.scope;
  issued.account = approval.account;
  issued.expiresInSeconds = lifetimeSeconds_;
  const std::int64_t id =
      addGrant({approval.account, approval.client, approval.scope,
                issued.refreshToken.empty() ? std::string() : sha256(issued.refreshToken)});
  issued.accessToken = issueAccess(id, approval.scope);
  return issued;
}

std::optional<IssuedTokens> Tokens::refresh(const std::string& refreshToken, const std::string& client,
                                            const std::string& scope, RefreshFailure& failure) {
  std::int64_t id = 0;
  IssuedTokens issued;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = refresh_.find(sha256(refreshToken));
    failure = RefreshFailure::unknownToken;
    if (found == refresh_.end()) return std::nullopt;
    id = found->second;
    const Grant& grant = grants_.at(id);
    failure = RefreshFailure::otherClient;
    if (grant.client != client) return std::nullopt;
    failure = RefreshFailure::scopeNotGranted;
    if (!isSubset(scope, grant.scope)) return std::nullopt;
    failure = RefreshFailure::none;
    issued.scope = scope.empty() ? grant.scope : scope;
    issued.account = grant.account;
  }
  issued.expiresInSeconds = lifetimeSeconds_;
  issued.accessToken = issueAccess(id, issued.scope);
  return issued;
}

void Tokens::addReadyToken(std::int64_t account, const std::string& token) {
  {
    // Present if the program was run with this token and --data before.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (accessTokens_.count(sha256(token)) != 0) return;
  }
  const std::int64_t id = addGrant({account, "", allScopes(), ""});
  storeAccess(sha256(token), {id, allScopes(), std::numeric_limits<std::int64_t>::max()});
}

TokenCheck Tokens::check(const std::string& accessToken) const {
  const std::string digest = sha256(accessToken);
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = accessTokens_.find(digest);
  if (found == accessTokens_.end()) return {};
  const auto grant = grants_.find(found->second.grant);
  if (grant == grants_.end()) return {};
  const bool expired = found->second.expires <= clock_.now();
  return {expired ? TokenState::expired : TokenState::valid, grant->second.account, grant->second.client,
          found->second.scope};
}

void Tokens::dropGrant(std::int64_t grant) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = grants_.find(grant);
    if (found == grants_.end()) return;
    refresh_.erase(found->second.refreshDigest);
    grants_.erase(found);
    for (auto token = accessTokens_.begin(); token != accessTokens_.end();) {
      token = token->second.grant == grant ? accessTokens_.erase(token) : std::next(token);
    }
  }
  Store::Writer writer(store_);
  writer.database().execute("DELETE FROM access_tokens WHERE grant_id=?1", grant);
  writer.database().execute("DELETE FROM grants WHERE id=?1", grant);
  writer.commit();
}

void Tokens::revoke(const std::string& accessToken) {
  std::int64_t grant = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = accessTokens_.find(sha256(accessToken));
    if (found == accessTokens_.end()) return;
    grant = found->second.grant;
  }
  dropGrant(grant);
}

void Tokens::revokeAccount(std::int64_t account) {
  std::vector<std::int64_t> doomed;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, grant] : grants_) {
      if (grant.account == account) doomed.push_back(id);
    }
  }
  for (const std::int64_t id : doomed) dropGrant(id);
}

}  // namespace kzv::standin
