#include "sdk/DBSession.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <utility>

#include "foundation/DispatchQueue.h"
#include "foundation/NSLog.h"
#include "sdk/DBError.h"
#include "sdk/Revocation.h"
#include "sdk/SessionInternals.h"
#include "sdk/wire/ServiceLimits.h"

using namespace kzv::sdk;

namespace {

// A token this close to its end could expire while a request is in flight.
constexpr std::int64_t renewalMarginSeconds = 300;

std::shared_ptr<DBSession>& sharedSlot() {
  static auto& slot = *new std::shared_ptr<DBSession>;
  return slot;
}
std::mutex& sharedMutex() {
  static auto& mutex = *new std::mutex;
  return mutex;
}

NSErrorRef notRevokedError(const std::string& reason, const std::string& webOrigin) {
  return NSError::withText(DBErrorDomain, DBErrorNotRevoked,
                           "unlinked here, but not revoked: " + reason +
                               " To end its access by hand, remove the application from the list at " +
                               webOrigin + "/account/connected_apps");
}

}  // namespace

std::int64_t kzv::sdk::unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::int64_t kzv::sdk::expiryAfter(std::optional<std::int64_t> lifetimeSeconds) {
  if (!lifetimeSeconds) return 0;
  return unixNow() + std::clamp<std::int64_t>(*lifetimeSeconds, 0, servicelimits::tokenLifetimeSeconds);
}

DBSession::Internals::Internals(std::string key, std::string secret, std::string_view rootName)
    : appKey(std::move(key)),
      appSecret(std::move(secret)),
      root(rootName),
      hosts(DBServiceHosts::fromEnvironment()),
      store(makeDefaultCredentialStore(appKey, hosts.origin)),
      network(NetworkThread::shared()) {
  if (hosts.refusal) {
    NSLog(NSLogLevel::error, "DBSession", hosts.refusal->localizedDescription());
  } else {
    readStore();
  }
}

/// Adds the stored accounts that are not in memory yet.
void DBSession::Internals::readStore() {
  const std::lock_guard storeLock(storeMutex_);
  const StoredAccounts stored = store->load();
  if (stored.error)
    NSLog(NSLogLevel::error, "DBSession",
          "not all linked accounts could be read: " + stored.error->localizedDescription());
  const std::lock_guard lock(mutex_);
  storeError_ = stored.error;
  for (const DBCredential& credential : stored.credentials)
    if (!find(credential.userId)) accounts_.push_back({credential, ++lastLinking_, false});
}

NSErrorRef DBSession::Internals::storeError() const {
  const std::lock_guard lock(mutex_);
  return storeError_;
}

DBSession::Internals::Account* DBSession::Internals::find(std::string_view userId) {
  const auto found = std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& account) {
    return account.credential.userId == userId;
  });
  return found == accounts_.end() ? nullptr : &*found;
}

const DBSession::Internals::Account* DBSession::Internals::find(std::string_view userId) const {
  return const_cast<Internals*>(this)->find(userId);
}

std::optional<Authorization> DBSession::Internals::authorization(const std::string& userId) const {
  const std::lock_guard lock(mutex_);
  const Account* account = find(userId);
  if (!account) return std::nullopt;
  const DBCredential& credential = account->credential;
  const std::int64_t now = unixNow();
  const bool ends = credential.expiresAtUnixSeconds != 0;
  return Authorization{credential.accessToken, credential.refreshToken, account->linking,
                       ends && credential.expiresAtUnixSeconds <= now + renewalMarginSeconds,
                       ends && credential.expiresAtUnixSeconds <= now};
}

void DBSession::Internals::keepRenewedToken(const std::string& userId, std::uint64_t linking,
                                            const std::string& accessToken,
                                            std::int64_t expiresAtUnixSeconds) {
  {
    const std::lock_guard lock(mutex_);
    Account* account = find(userId);
    if (!account || account->linking != linking) return;
    account->credential.accessToken = accessToken;
    account->credential.expiresAtUnixSeconds = expiresAtUnixSeconds;
  }
  DispatchQueue::global().async([self = shared_from_this(), work = backgroundWork(), userId, linking] {
    const std::lock_guard storeLock(self->storeMutex_);
    DBCredential credential;
    {
      const std::lock_guard lock(self->mutex_);
      const Account* account = self->find(userId);
      if (!account || account->linking != linking) return;
      credential = account->credential;
    }
    NSErrorRef error;
    if (!self->store->update(credential, &error)) {  // costs only another renewal at the next start
      NSLog(NSLogLevel::warning, "DBSession",
            "A renewed authorization could not be stored: " + error->localizedDescription());
    }
  });
}

bool DBSession::Internals::noteAuthorizationFailure(const std::string& userId, std::uint64_t linking) {
  const std::lock_guard lock(mutex_);
  Account* account = find(userId);
  if (!account || account->linking != linking || account->failureNoted) return false;
  account->failureNoted = true;
  return true;
}

DBSessionDelegate* DBSession::Internals::currentDelegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_;
}

void DBSession::Internals::setDelegate(DBSessionDelegate* newDelegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = newDelegate;
}

DBSession::Internals::StoredToken DBSession::Internals::adoptNewerToken(const std::string& userId,
                                                                        const std::string& refusedToken) {
  const std::lock_guard storeLock(storeMutex_);
  const StoredAccounts stored = store->load();
  const auto found =
      std::find_if(stored.credentials.begin(), stored.credentials.end(),
                   [&](const DBCredential& credential) { return credential.userId == userId; });
  const std::lock_guard lock(mutex_);
  Account* account = find(userId);
  if (!account) return StoredToken::gone;
  if (account->credential.accessToken != refusedToken)
    return StoredToken::newer;  // adopted by another request
  if (found == stored.credentials.end()) return stored.error ? StoredToken::unreadable : StoredToken::gone;
  if (found->accessToken == refusedToken) return StoredToken::refused;
  const bool isRenewal = isSameLinking(*found, account->credential);
  *account = {*found, isRenewal ? account->linking : ++lastLinking_, false};
  return StoredToken::newer;
}

bool DBSession::Internals::isAuthorizationLost(const std::string& userId) {
  std::string refusedToken;
  const SecretScope cleared(refusedToken);
  {
    const std::lock_guard lock(mutex_);
    const Account* account = find(userId);
    if (!account || !account->failureNoted) return false;
    refusedToken = account->credential.accessToken;
  }
  switch (adoptNewerToken(userId, refusedToken)) {
    case StoredToken::newer:
      return false;
    case StoredToken::refused:
    case StoredToken::gone:
      return true;
    case StoredToken::unreadable:
      break;
  }
  const std::lock_guard lock(mutex_);
  if (Account* account = find(userId)) account->failureNoted = false;  // the next failure checks again
  return false;
}

bool DBSession::Internals::isWithdrawn(const Withdrawn& withdrawn) const {
  const std::lock_guard lock(mutex_);
  return withdrawn && *withdrawn;
}

void DBSession::Internals::withdraw(const Withdrawn& withdrawn) {
  const std::lock_guard lock(mutex_);
  *withdrawn = true;
}

bool DBSession::Internals::link(const DBCredential& credential, const Withdrawn& withdrawn,
                                NSErrorRef* error) {
  const std::lock_guard storeLock(storeMutex_);
  if (!store->save(credential, error, [&] { return !isWithdrawn(withdrawn); })) return false;
  std::optional<DBCredential> replaced;
  {
    const std::lock_guard lock(mutex_);
    Account* account = find(credential.userId);
    if (!withdrawn || !*withdrawn) {
      const Account linked{credential, ++lastLinking_, false};
      if (account) {
        *account = linked;
      } else {
        accounts_.push_back(linked);
      }
      return true;
    }
    if (account) replaced = account->credential;
  }
  // It was withdrawn while it was being stored.
  const bool isUndone =
      replaced ? store->save(*replaced, nullptr) : store->remove(credential.userId, &credential, nullptr);
  if (!isUndone)
    NSLog(NSLogLevel::error, "DBSession", "A cancelled linking could not be removed from the store.");
  return failUnwanted(error);
}

/// Removes the account from memory and from the store.
/// @return the tokens to revoke: those in use here and, if another process has linked the account again, its
/// tokens.
std::vector<DBCredential> DBSession::Internals::forget(const std::string& userId, NSErrorRef* storeError) {
  const std::lock_guard storeLock(storeMutex_);
  std::vector<DBCredential> removed;
  {
    const std::lock_guard lock(mutex_);
    Account* account = find(userId);
    if (!account) return {};
    removed.push_back(account->credential);
    accounts_.erase(accounts_.begin() + (account - accounts_.data()));
  }
  const StoredAccounts stored = store->load();
  for (const DBCredential& credential : stored.credentials) {
    if (credential.userId != userId) continue;
    if (isSameLinking(credential, removed.front())) {
      removed.front() = credential;  // perhaps renewed by another process
    } else {
      removed.push_back(credential);
    }
  }
  NSErrorRef reason;
  if (!store->remove(userId, nullptr, &reason)) {
    NSLog(NSLogLevel::error, "DBSession",
          "An unlinked account could not be removed from the store: " + reason->localizedDescription());
    setError(storeError, reason);
  }
  return removed;
}

/// Removes an account whose authorization is lost, unless it was linked again.
void DBSession::Internals::removeLost(const std::string& userId) {
  if (!isAuthorizationLost(userId)) return;
  const std::lock_guard storeLock(storeMutex_);
  DBCredential lost;
  {
    const std::lock_guard lock(mutex_);
    Account* account = find(userId);
    if (!account || !account->failureNoted) return;
    lost = account->credential;
    accounts_.erase(accounts_.begin() + (account - accounts_.data()));
  }
  NSErrorRef reason;
  if (!store->remove(userId, &lost, &reason))
    NSLog(NSLogLevel::error, "DBSession",
          "A lost account could not be removed from the store: " + reason->localizedDescription());
}

void DBSession::Internals::unlink(const std::string& userId) {
  bool isLost = false;
  {
    const std::lock_guard lock(mutex_);
    const Account* account = find(userId);
    isLost = account && account->failureNoted;
  }
  if (isLost) return removeLost(userId);
  for (const DBCredential& credential : forget(userId, nullptr)) revokeInBackground(credential);
}

void DBSession::Internals::revokeInBackground(const DBCredential& credential) {
  Revocation::start(shared_from_this(), credential, [work = backgroundWork()](const NSErrorRef& error) {
    if (error) NSLog(NSLogLevel::warning, "DBSession", error->localizedDescription());
  });
}

bool DBSession::Internals::unlinkAndRevoke(const std::string& userId, std::chrono::milliseconds timeout,
                                           NSErrorRef* error) {
  NSErrorRef storeError;
  std::vector<std::future<NSErrorRef>> outcomes;
  for (const DBCredential& credential : forget(userId, &storeError)) {
    const auto outcome = std::make_shared<std::promise<NSErrorRef>>();
    outcomes.push_back(outcome->get_future());
    Revocation::start(shared_from_this(), credential,
                      [outcome](const NSErrorRef& reason) { outcome->set_value(reason); });
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string failure;
  for (auto& outcome : outcomes) {
    const bool isKnown = outcome.wait_until(deadline) == std::future_status::ready;
    const NSErrorRef reason = isKnown ? outcome.get() : nullptr;
    if (reason || !isKnown)
      failure = reason ? reason->localizedDescription() : "the service has not answered in time";
  }
  if (!failure.empty()) {
    setError(error, notRevokedError(failure, hosts.web));
    return false;
  }
  if (!storeError) return true;
  setError(error, storeError);
  return false;
}

std::vector<std::string> DBSession::Internals::userIds() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> ids;
  for (const Account& account : accounts_) ids.push_back(account.credential.userId);
  return ids;
}

bool DBSession::Internals::hasUserId(std::string_view userId) const {
  const std::lock_guard lock(mutex_);
  return find(userId) != nullptr;
}

std::shared_ptr<void> DBSession::Internals::backgroundWork() {
  const std::lock_guard lock(mutex_);
  ++pendingWork_;
  return {nullptr, [self = shared_from_this()](void*) {
            const std::lock_guard guard(self->mutex_);
            if (--self->pendingWork_ == 0) self->workEnded_.notify_all();
          }};
}

void DBSession::Internals::waitForBackgroundWork(double seconds) {
  std::unique_lock lock(mutex_);
  workEnded_.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds),
                        [&] { return pendingWork_ == 0; });
}

DBSession::DBSession(std::string appKey, std::string appSecret, std::string_view root)
    : internals_(std::make_shared<Internals>(std::move(appKey), std::move(appSecret), root)) {}

DBSession::~DBSession() { internals_->setDelegate(nullptr); }

std::shared_ptr<DBSession> DBSession::sharedSession() {
  const std::lock_guard lock(sharedMutex());
  return sharedSlot();
}

void DBSession::setSharedSession(std::shared_ptr<DBSession> session) {
  const std::lock_guard lock(sharedMutex());
  sharedSlot().swap(session);
}

const std::string& DBSession::appKey() const noexcept { return internals_->appKey; }
const std::string& DBSession::root() const noexcept { return internals_->root; }
std::vector<std::string> DBSession::userIds() const { return internals_->userIds(); }
bool DBSession::hasUserId(std::string_view userId) const { return internals_->hasUserId(userId); }
bool DBSession::isLinked() const { return !internals_->userIds().empty(); }
void DBSession::setDelegate(DBSessionDelegate* delegate) { internals_->setDelegate(delegate); }
NSErrorRef DBSession::storeError() const { return internals_->storeError(); }
void DBSession::readStoreAgainIfIncomplete() {
  if (internals_->storeError()) internals_->readStore();
}
const std::string& DBSession::origin() const noexcept { return internals_->hosts.origin; }
bool DBSession::linkCredential(const DBCredential& credential, NSErrorRef* error) {
  return internals_->link(credential, nullptr, error);
}
bool DBSession::unlinkAndRevoke(const std::string& userId, std::chrono::milliseconds timeout,
                                NSErrorRef* error) {
  return internals_->unlinkAndRevoke(userId, timeout, error);
}
bool DBSession::isAuthorizationLost(const std::string& userId) {
  return internals_->isAuthorizationLost(userId);
}
void DBSession::unlinkUserId(const std::string& userId) { internals_->unlink(userId); }
void DBSession::waitForBackgroundWork(double seconds) { internals_->waitForBackgroundWork(seconds); }
