#include <cstdlib>

#include <gtest/gtest.h>

#include "core/L.h"
#include "foundation/NSBundle.h"
#include "foundation/NSFileManager.h"
#include "testing/TemporaryFolder.h"

TEST(Localisation, PrefersTheUsersLanguageThenEnglishThenTheKey) {
  const TemporaryFolder bundle;
  auto& files = NSFileManager::defaultManager();
  ASSERT_TRUE(files.createDirectoryAtPath(bundle.path() + "/Resources", true));
  ASSERT_TRUE(writeFile(bundle.path() + "/Resources/Texts.ini",
                        "[Texts]\nboth=both\nboth[de]=beide\\n\"groß\"\nenglish=only English\n"));
  ::setenv("LC_ALL", "de_DE.UTF-8", 1);
  NSBundle::addResources(std::make_shared<NSBundle>("/no/such.bundle"));
  NSBundle::addResources(std::make_shared<NSBundle>(bundle.path()));
  EXPECT_EQ(L("both"), "beide\n\"groß\"");
  EXPECT_EQ(L("english"), "only English");
  EXPECT_EQ(L("no such key"), "no such key");
  ASSERT_TRUE(writeFile(bundle.path() + "/Resources/Texts.ini", "not a key file"));
  EXPECT_EQ(L("english"), "english") << "a damaged file counts as none";
}
