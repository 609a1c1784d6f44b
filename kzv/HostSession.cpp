#include "kzv/HostSession.h"

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>
#include <unistd.h>

#include "core/KZVConstants.h"
#include "core/KZVCoreObj.h"
#include "core/PluginLoader.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "kzv/HostError.h"

namespace kzv::cli {

using namespace std::chrono_literals;

namespace {

/// An account's name comes from the service; without an answer the accounts are still shown.
constexpr auto namesTimeLimit = 10s;
constexpr double backgroundSeconds = 3;

std::string bundlePath() {
  if (const char* wanted = std::getenv("KZV_BUNDLE"); wanted && *wanted) return wanted;
  std::string program(4096, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", program.data(), program.size());
  program.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::string prefix = deletingLastPathComponent(deletingLastPathComponent(program));
  return appendingPathComponent(prefix, "lib/kzv/KZVDropboxFS.bundle");
}

std::string listed(const std::vector<Account>& accounts) {
  std::string text;
  for (const Account& account : accounts) {
    if (!text.empty()) text += ", ";
    text += account.isNamed ? fmt::format("{} ({})", account.id, account.label) : account.id;
  }
  return text;
}

}  // namespace

HostSession::HostSession() {
  // Registered before the plug-in is loaded, so that not even its first notification is missed.
  NSNotificationCenter::defaultCenter().addObserver(this, AttachedPluginsDidChangeNotification, nullptr,
                                                    [this](const NSNotification&) {
                                                      const std::lock_guard lock(mutex_);
                                                      ++refreshes_;
                                                      refreshed_.notify_all();
                                                    });
}

HostSession::~HostSession() { NSNotificationCenter::defaultCenter().removeObserver(this); }

bool HostSession::load(NSErrorRef* error) {
  plugin_ = loadPlugin(bundlePath(), error);
  return plugin_ != nullptr;
}

std::vector<std::string> HostSession::linkedIds() const {
  if (FSPluginAccounts* accounts = plugin_->accounts()) return accounts->linkedAccountIds();
  std::vector<std::string> ids;
  for (const Account& root : rootItems()) ids.push_back(root.id);
  return ids;
}

NSErrorRef HostSession::accountsError() const {
  FSPluginAccounts* accounts = plugin_->accounts();
  return accounts ? accounts->accountsError() : nullptr;
}

std::string HostSession::labelOf(const std::string& accountId) const {
  for (const Account& root : rootItems())
    if (root.id == accountId) return root.label;
  return accountId;
}

/// The accounts that have a root item; isAvailable is not set.
std::vector<Account> HostSession::rootItems() const {
  std::vector<Account> accounts;
  const auto items = plugin_->availableRootItems();
  if (!items) return accounts;
  for (const id& item : items->items()) {
    const auto* root = as<NSDictionary>(item.get());
    if (!root) continue;
    const std::string* accountId = textOf(root->objectForKey(KZVFSOptions));
    const std::string* label = textOf(root->objectForKey(KZVFSLabel));
    if (!accountId) continue;
    accounts.push_back({*accountId, label ? *label : *accountId, label != nullptr, false});
  }
  return accounts;
}

std::vector<Account> HostSession::knownAccounts() const {
  auto accounts = rootItems();
  for (Account& account : accounts) {
    if (const auto volume = plugin_->makePlugin(nullptr, str(account.id)))
      account.isAvailable = volume->isFSAvailable();
  }
  return accounts;
}

template <class Condition>
void HostSession::waitForNames(Condition isEnough, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock lock(mutex_);
  while (true) {
    const int seen = refreshes_;
    lock.unlock();
    const bool enough = isEnough(seen);
    lock.lock();
    if (enough || !refreshed_.wait_until(lock, deadline, [&] { return refreshes_ != seen; })) return;
  }
}

std::vector<Account> HostSession::accounts() {
  std::vector<Account> accounts;
  waitForNames(
      [&](int refreshes) {
        const auto known = knownAccounts();
        accounts.clear();
        for (std::string& accountId : linkedIds()) {
          const auto found = std::find_if(known.begin(), known.end(),
                                          [&](const Account& account) { return account.id == accountId; });
          accounts.push_back(found != known.end() ? *found : Account{accountId, accountId});
        }
        // After a refresh by the plug-in, an account without a name is one that the service did not name.
        return refreshes > 0 ||
               std::all_of(accounts.begin(), accounts.end(), [](const Account& a) { return a.isNamed; });
      },
      namesTimeLimit);
  return accounts;
}

Account HostSession::accountNamed(const std::string& accountId) {
  Account wanted{accountId, accountId};
  waitForNames(
      [&](int /*refreshes*/) {
        for (Account& account : knownAccounts())
          if (account.id == accountId) wanted = std::move(account);
        return wanted.isNamed;
      },
      namesTimeLimit);
  return wanted;
}

void HostSession::waitForName(const std::string& accountId, std::chrono::seconds limit) {
  waitForNames([&](int refreshes) { return refreshes > 0 || labelOf(accountId) != accountId; }, limit);
}

std::optional<std::string> HostSession::chooseAccount(const std::optional<std::string>& wanted,
                                                      NSErrorRef* error) {
  const auto refuse = [&](std::string text) {
    const NSErrorRef unread = accountsError();  // the account may be among those that could not be read
    setError(error, unread ? unread : hostError(HostErrorCode::noAccount, std::move(text)));
    return std::nullopt;
  };
  const auto ids = linkedIds();
  if (wanted && std::find(ids.begin(), ids.end(), *wanted) != ids.end()) return wanted;
  if (ids.empty()) return refuse("no account is linked; link one with: kzv link");
  if (!wanted && ids.size() == 1 && !accountsError()) return ids.front();
  const auto all = accounts();
  if (!wanted) return refuse("several accounts are linked, choose one with --account: " + listed(all));
  std::vector<Account> matching;
  std::copy_if(all.begin(), all.end(), std::back_inserter(matching),
               [&](const Account& account) { return account.isNamed && account.label == *wanted; });
  if (matching.size() == 1) return matching.front().id;
  if (matching.empty()) return refuse(fmt::format("no account \"{}\"; linked are: {}", *wanted, listed(all)));
  return refuse(
      fmt::format("several accounts are called \"{}\", choose one by its id: {}", *wanted, listed(matching)));
}

FSPluginAccounts* HostSession::accountsInterface(NSErrorRef* error) {
  FSPluginAccounts* accounts = plugin_->accounts();
  if (!accounts) setError(error, hostError(HostErrorCode::notSupported, "this plug-in has no accounts"));
  return accounts;
}

std::shared_ptr<FSPlugin> HostSession::openVolume(const std::optional<std::string>& wanted,
                                                  NSErrorRef* error) {
  const auto accountId = chooseAccount(wanted, error);
  if (!accountId) return nullptr;
  closeUnlinkedVolumes();
  volumeId_ = *accountId;
  if (const auto open = volumes_.find(volumeId_); open != volumes_.end()) return open->second;
  auto volume = plugin_->makePlugin(nullptr, str(volumeId_));
  if (volume) {
    KZVCoreObj::shared().attach(volume);
    volumes_.emplace(volumeId_, volume);
    if (watchesVolumes_) {
      auto root = std::make_shared<FSItem>("/", volume);
      root->setIsDirectory(true);
      volume->startWatchFolder(root);  // until it is detached
    }
  } else {
    setError(error, missingError());
  }
  return volume;
}

void HostSession::closeUnlinkedVolumes() {
  const auto ids = linkedIds();
  std::erase_if(volumes_, [&](const auto& entry) {
    const bool isLinked = std::find(ids.begin(), ids.end(), entry.first) != ids.end();
    if (!isLinked) KZVCoreObj::shared().detach(*entry.second);
    return !isLinked;
  });
}

bool HostSession::isVolumeLinked() const {
  const auto ids = linkedIds();
  return std::find(ids.begin(), ids.end(), volumeId_) != ids.end();
}

NSErrorRef HostSession::missingError() {
  if (isVolumeLinked()) return noSuchItemError();
  return unlinkedError(volumeId_);
}

void HostSession::noteUnlink() {
  hasUnlinked_ = true;
  closeUnlinkedVolumes();
}

void HostSession::close() {
  for (const auto& [accountId, volume] : volumes_) KZVCoreObj::shared().detach(*volume);
  volumes_.clear();
  if (!plugin_) return;
  if (FSPluginAccounts* accounts = hasUnlinked_ ? plugin_->accounts() : nullptr)
    accounts->finishBackgroundWork(backgroundSeconds);
  KZVCoreObj::shared().removeTemporaryFolders();
}

}  // namespace kzv::cli
