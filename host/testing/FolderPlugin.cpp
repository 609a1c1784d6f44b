#include "host/testing/FolderPlugin.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "core/KZVConstants.h"
#include "core/PluginLoader.h"
#include "foundation/DispatchQueue.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSString.h"
#include "host/testing/FolderVolume.h"

namespace {
std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
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
    setError(error, std::make_shared<NSError>(
                        "TestDomain", 401,
                        NSDictionary::with({{NSLocalizedDescriptionKey, str("the token is not accepted")}})));
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

void FolderPlugin::unlinkAccount(const std::string& accountId) {
  noteEvent("unlink " + accountId);
  const std::lock_guard lock(mutex_);
  std::erase_if(accounts_, [&](const TestAccount& account) { return account.accountId == accountId; });
}

void FolderPlugin::finishBackgroundWork(double seconds) {
  noteEvent(seconds > 0 && seconds <= 3 ? "finished" : "waits too long");
}
