#include "tests/PluginFixture.h"

#include <cstdlib>

#include "core/KZVCoreObj.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFSClass.h"

PluginTest::PluginTest(const char* pollSeconds, const char* longPoll) {
  setenv("KZV_HOME", home.path().c_str(), 1);
  setenv("KZV_TOKEN_STORE", "file", 1);
  setenv("KZV_SERVICE_URL", standIn.url().c_str(), 1);
  setenv("KZV_POLL_SECONDS", pollSeconds, 1);
  setenv("KZV_LONG_POLL", longPoll, 1);
  KZVDropboxFSClass::shared().initialize();
  ada = open("ada-token");
  settle(*ada);
}

PluginTest::~PluginTest() {
  for (const auto& plugin : KZVCoreObj::shared().attachedPlugins()) KZVCoreObj::shared().detach(*plugin);
}

std::shared_ptr<KZVDropboxFS> PluginTest::open(const std::string& token) {
  return bounded([&]() -> std::shared_ptr<KZVDropboxFS> {
    NSErrorRef error;
    const auto userId = KZVDropboxFSClass::shared().linkAccountWithToken(token, &error);
    if (!userId) {
      ADD_FAILURE() << "cannot link: " << (error ? error->description() : "no error");
      return nullptr;
    }
    auto plugin = KZVDropboxFSClass::shared().makePlugin(nullptr, str(*userId));
    KZVCoreObj::shared().attach(plugin);
    return as<KZVDropboxFS>(plugin);
  });
}

void PluginTest::settle(KZVDropboxFS& plugin) {
  bounded([&] { return plugin.pollForChanges(), true; });
}

std::map<std::string, std::int64_t> PluginTest::treeOf(const FSItems& items) {
  std::map<std::string, std::int64_t> tree;
  for (const auto& item : items) {
    tree[item->isDirectory() ? item->path() + "/" : item->path()] = static_cast<std::int64_t>(item->size());
  }
  return tree;
}

std::map<std::string, std::int64_t> PluginTest::listedTree(KZVDropboxFS& plugin, const std::string& path) {
  NSErrorRef error;
  const auto items = bounded([&] { return plugin.contentAtPath(path, true, true, &error); });
  EXPECT_TRUE(items) << (error ? error->description() : "no error");
  return treeOf(items.value_or(FSItems()));
}
