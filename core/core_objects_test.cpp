#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/FSItem.h"
#include "core/FSPlugin.h"
#include "core/KZVCoreObj.h"
#include "core/KZVSupport.h"
#include "core/PluginLoader.h"
#include "core/copy/KZVBatchId.h"
#include "core/synced.h"
#include "foundation/NSString.h"

namespace {

/// A volume that is only an identity; asks the core object when it goes, as a plug-in may.
class Volume final : public FSPlugin {
 public:
  explicit Volume(bool& isGone) : isGone_(isGone) {}
  ~Volume() override {
    KZVCoreObj::shared().attachedPlugins();
    isGone_ = true;
  }
  id options() const override { return str("volume"); }
  std::string label() const override { return "Volume"; }
  bool isFSAvailable() const override { return true; }
  std::shared_ptr<FSItem> parentItem() const override { return nullptr; }
  bool isEjectable() const override { return false; }
  void eject() override {}
  std::shared_ptr<NSURL> tmpFolderUrl() const override { return nullptr; }
  void setTmpFolderUrl(std::shared_ptr<NSURL> /*url*/) override {}
  bool isSeekable() const override { return false; }
  bool isExecutable(const std::string& /*path*/) override { return false; }
  bool isExists(const std::string& /*path*/) override { return false; }
  bool isReadable(const std::string& /*path*/) override { return false; }
  bool isWritable(const std::string& /*path*/) override { return false; }
  std::shared_ptr<NSDictionary> attributesAtPath(const std::string& /*path*/,
                                                 NSErrorRef* /*error*/) override {
    return nullptr;
  }
  std::optional<FSItems> contentAtPath(const std::string& /*path*/, bool /*recursive*/, bool /*showHidden*/,
                                       NSErrorRef* /*error*/) override {
    return std::nullopt;
  }

 private:
  bool& isGone_;
};

TEST(CoreObject, AttachesOnceInOrderAndLetsGo) {
  auto& core = KZVCoreObj::shared();
  bool isFirstGone = false;
  bool isSecondGone = false;
  auto first = std::make_shared<Volume>(isFirstGone);
  const auto second = std::make_shared<Volume>(isSecondGone);
  core.attach(first);
  core.attach(second);
  core.attach(first);
  EXPECT_EQ(core.attachedPlugins(), (std::vector<std::shared_ptr<FSPlugin>>{first, second}));
  const Volume& firstVolume = *first;
  first.reset();
  EXPECT_FALSE(isFirstGone);
  core.detach(firstVolume);
  EXPECT_TRUE(isFirstGone) << "its end may ask the core object without a deadlock";
  core.detach(*second);
  core.detach(*second);
  EXPECT_TRUE(core.attachedPlugins().empty());
}

TEST(Volume, WithoutRulesOfItsOwnTakesNamesAsADiskDoes) {
  bool isGone = false;
  const auto volume = std::make_shared<Volume>(isGone);
  for (const char* name : {"a", "A ", "a\\b", "~$x", "desktop.ini"})
    EXPECT_FALSE(volume->nameProblem(name)) << name;
  for (const std::string& name : {std::string(), std::string(".."), std::string("a/b"), std::string("\xff"),
                                  std::string("a\0b", 3), std::string(256, 'n')})
    EXPECT_TRUE(volume->nameProblem(name)) << name;
  EXPECT_EQ(volume->pathKey("/A/b//c"), "/A/b//c");
}

TEST(Item, ACallbackMayReplaceItselfWhileItGoes) {
  const auto item = std::make_shared<FSItem>("/a", nullptr);
  /// Uses the item when the callback that holds it is destroyed.
  struct Tail {
    std::shared_ptr<FSItem> item;
    ~Tail() {
      if (item) item->prepareForChange();
    }
  };
  auto tail = std::make_shared<Tail>();
  tail->item = item;
  item->setChangeCallback([tail = std::move(tail)](const auto&) {});
  EXPECT_TRUE(item->changeCallback());
  item->setChangeCallback({});
  EXPECT_FALSE(item->changeCallback());
  EXPECT_TRUE(item->takeChangeMark());
}

TEST(Loader, SaysWhatIsWrong) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::path(std::getenv("KZV_HOME")) / "bundles";
  fs::create_directories(folder / "empty.bundle");
  fs::create_directories(folder / "broken.bundle");
  fs::copy_file("/proc/self/cmdline", folder / "broken.bundle" / "broken.so");
  struct Case {
    const char* name;
    const char* text;
    int code;
  };
  const Case cases[] = {{"missing.bundle", "no plug-in bundle at ", 1},
                        {"empty.bundle", "empty.so", 2},
                        {"broken.bundle", "broken.so", 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NSErrorRef error;
    EXPECT_EQ(loadPlugin((folder / c.name).string(), &error), nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), c.code);
    EXPECT_NE(error->localizedDescription().find(c.text), std::string::npos) << error->localizedDescription();
  }
}

/// Settings and caches of this program in a folder of their own.
class OwnHome final : public testing::Environment {
 public:
  void SetUp() override { ::setenv("KZV_HOME", folder_.c_str(), 1); }
  void TearDown() override { std::filesystem::remove_all(folder_); }

 private:
  const std::string folder_ = std::filesystem::temp_directory_path() / KZVSupport::uniquePathComponent();
};
[[maybe_unused]] const auto* const ownHome = testing::AddGlobalTestEnvironment(new OwnHome);

}  // namespace
