#include "sdk/DBSession.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "foundation/DispatchQueue.h"
#include "foundation/NSLog.h"
#include "sdk/DBError.h"
#include "sdk/ServiceCall.h"
#include "sdk/ServiceJson.h"
#include "sdk/ServiceLimits.h"
#include "sdk/SessionInternals.h"

namespace {

// A token this close to its end would run out under way.
constexpr std::int64_t renewalMarginSeconds = 300;

std::shared_ptr<DBSession>& sharedSlot() {
  static auto& slot = *new std::shared_ptr<DBSession>;
  return slot;
}
std::mutex& sharedMutex() {
  static auto& mutex = *new std::mutex;
  return mutex;
}

}  // namespace

std::int64_t unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::int64_t expiryAfter(std::optional<std::int64_t> lifetimeSeconds) {
  if (!lifetimeSeconds) return 0;
  return unixNow() + std::clamp<std::int64_t>(*lifetimeSeconds, 0, servicelimits::tokenLifetimeSeconds);
}

DBSession::Internals::Internals(std::string key, std::string secret, std::string_view rootName)
    : appKey(std::move(key)),
      appSecret(std::move(secret)),
      root(rootName),
      hosts(serviceHostsFromEnvironment()),
      store(makeDefaultCredentialStore(appKey)),
      network(NetworkThread::shared()) {
  if (hosts.refusal) NSLog(NSLogLevel::error, "DBSession", hosts.refusal->localizedDescription());
  NSErrorRef error;
  const auto stored = store->load(&error);
  if (!stored) {
    NSLog(NSLogLevel::error, "DBSession",
          "The linked accounts could not be read: " + (error ? error->localizedDescription() : "no reason"));
    return;
  }
  for (const DBCredential& credential : *stored) accounts_.push_back({credential, ++lastLinking_, false});
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
    if (!self->store->update(credential, &error)) {  // only costs another renewal at the next start
      NSLog(NSLogLevel::warning, "DBSession", "A renewed authorization could not be stored.");
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

bool DBSession::Internals::link(const DBCredential& credential, NSErrorRef* error) {
  const std::lock_guard storeLock(storeMutex_);
  if (!store->save(credential, error)) return false;
  const std::lock_guard lock(mutex_);
  if (Account* account = find(credential.userId)) {
    *account = {credential, ++lastLinking_, false};
  } else {
    accounts_.push_back({credential, ++lastLinking_, false});
  }
  return true;
}

void DBSession::Internals::unlink(const std::string& userId) {
  DBCredential credential;
  {
    const std::lock_guard storeLock(storeMutex_);
    {
      const std::lock_guard lock(mutex_);
      Account* account = find(userId);
      if (!account) return;
      credential = std::move(account->credential);
      accounts_.erase(accounts_.begin() + (account - accounts_.data()));
    }
    NSErrorRef error;
    if (!store->remove(userId, &error)) {
      NSLog(NSLogLevel::error, "DBSession",
            "An unlinked account could not be removed from the store: " +
                (error ? error->localizedDescription() : "no reason"));
    }
  }
  revoke(credential);
}

void DBSession::Internals::revoke(const DBCredential& credential) {
  ServiceRequest request;
  request.style = ServiceRequest::Style::rpcWithoutArgument;
  request.route = "auth/token/revoke";
  request.repeat = ServiceRequest::Repeat::always;
  request.about.action = "revoke the authorization of the account";
  ServiceCall::start(shared_from_this(), {"", credential.accessToken}, std::move(request), nullptr,
                     [work = backgroundWork()](ServiceAnswer& answer) {
                       if (answer.error)
                         NSLog(NSLogLevel::info, "DBSession", answer.error->localizedDescription());
                     });
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
  ++workUnderWay_;
  return {nullptr, [self = shared_from_this()](void*) {
            const std::lock_guard guard(self->mutex_);
            if (--self->workUnderWay_ == 0) self->workEnded_.notify_all();
          }};
}

void DBSession::Internals::waitForBackgroundWork(double seconds) {
  std::unique_lock lock(mutex_);
  workEnded_.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds),
                        [&] { return workUnderWay_ == 0; });
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
bool DBSession::linkCredential(const DBCredential& credential, NSErrorRef* error) {
  return internals_->link(credential, error);
}
void DBSession::unlinkUserId(const std::string& userId) { internals_->unlink(userId); }
void DBSession::waitForBackgroundWork(double seconds) { internals_->waitForBackgroundWork(seconds); }
