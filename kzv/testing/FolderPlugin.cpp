#include "kzv/testing/FolderPlugin.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "core/KZVConstants.h"
#include "core/PluginLoader.h"
#include "foundation/DispatchQueue.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSString.h"
#include "kzv/testing/FolderVolume.h"

namespace kzv::cli {

namespace {
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

NSErrorRef testError(int code, const std::string& text) {
  return std::make_shared<NSError>("TestDomain", code,
                                   NSDictionary::with({{NSLocalizedDescriptionKey, str(text)}}));
}
}  // namespace

extern "C" FSPluginClass* kzvBundlePrincipalClass();
extern "C" FSPluginClass* kzvBundlePrincipalClass() { return &FolderPlugin::shared(); }

FolderPlugin& FolderPlugin::shared() {
  static auto& plugin = *new FolderPlugin;
  return plugin;
}

void FolderPlugin::noteEvent(const std::string& event) {
  if (const std::string path = environment("KZV_TEST_EVENTS"); !path.empty())
    std::ofstream(path, std::ios::app) << event << '\n';
}

void FolderPlugin::initialize() {
  const std::string list = environment("KZV_TEST_ACCOUNTS");
  for (std::size_t at = 0; at < list.size();) {
    const std::size_t end = std::min(list.find(',', at), list.size());
    const std::string entry = list.substr(at, end - at);
    const std::size_t equals = entry.find('=');
    TestAccount account{entry.substr(0, equals), std::nullopt};
    if (equals != std::string::npos) account.label = entry.substr(equals + 1);
    accounts_.push_back(std::move(account));
    at = end + 1;
  }
  noteEvent("service=" + environment("KZV_SERVICE_URL") + " key=" + environment("KZV_APP_KEY") +
            " home=" + environment("KZV_HOME"));
  refreshLater();
}

void FolderPlugin::refreshLater() {
  DispatchQueue::global().async([this] {
    {
      const std::lock_guard lock(mutex_);
      areNamed_ = true;
    }
    DispatchQueue::main().async([] {
      NSNotificationCenter::defaultCenter().post(
          {std::string(AttachedPluginsDidChangeNotification), nullptr, nullptr});
    });
  });
}

std::shared_ptr<NSArray> FolderPlugin::availableRootItems() const {
  std::vector<id> items;
  const std::lock_guard lock(mutex_);
  for (const TestAccount& account : accounts_) {
    if (!areNamed_ || !account.label) continue;
    items.push_back(
        NSDictionary::with({{KZVFSLabel, str(*account.label)}, {KZVFSOptions, str(account.accountId)}}));
  }
  return std::make_shared<NSArray>(std::move(items));
}

std::shared_ptr<FSPlugin> FolderPlugin::makePlugin(const std::shared_ptr<FSItem>& /*item*/,
                                                   const id& options) {
  const std::string* accountId = textOf(options);
  const auto ids = linkedAccountIds();
  if (!accountId || std::find(ids.begin(), ids.end(), *accountId) == ids.end()) return nullptr;
  return std::make_shared<FolderVolume>(*accountId, environment("KZV_TEST_TREE"));
}

std::vector<std::string> FolderPlugin::linkedAccountIds() const {
  std::vector<std::string> ids;
  const std::lock_guard lock(mutex_);
  for (const TestAccount& account : accounts_) ids.push_back(account.accountId);
  return ids;
}

std::optional<std::string> FolderPlugin::linkAccountWithToken(const std::string& token, NSErrorRef* error) {
  if (token == "refused") {
    setError(error, testError(401, "the token is not accepted"));
    return std::nullopt;
  }
  {
    const std::lock_guard lock(mutex_);
    accounts_.push_back({"fresh", std::to_string(token.size()) + " characters"});
    areNamed_ = false;
  }
  refreshLater();
  return "fresh";
}

bool FolderPlugin::unlinkAccount(const std::string& accountId, NSErrorRef* error) {
  noteEvent("unlink " + accountId);
  const bool isRevoked = !accountId.starts_with("stuck");
  if (!isRevoked) setError(error, testError(5, "unlinked here, but not revoked"));
  const std::lock_guard lock(mutex_);
  std::erase_if(accounts_, [&](const TestAccount& account) { return account.accountId == accountId; });
  return isRevoked;
}

NSErrorRef FolderPlugin::accountsError() const {
  const std::string text = environment("KZV_TEST_ACCOUNTS_ERROR");
  return text.empty() ? nullptr : testError(6, text);
}

std::optional<AccountDetails> FolderPlugin::accountDetails(const std::string& accountId, NSErrorRef* error) {
  if (accountId == "offline") {
    setError(error, testError(-7, "could not connect"));
    return std::nullopt;
  }
  return AccountDetails{accountId, "ada@example.com", "", {2'000'000'000, -1'500'000}};
}

std::optional<PublicLink> FolderPlugin::publicLink(const std::string& path, NSErrorRef* /*error*/) {
  return PublicLink{"https://host" + path, path == "/team-only" ? "team_only" : "public"};
}

void FolderPlugin::finishBackgroundWork(double seconds) {
  noteEvent(seconds > 0 && seconds <= 3 ? "finished" : "waits too long");
}

}  // namespace kzv::cli
