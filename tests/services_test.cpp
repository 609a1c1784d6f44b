#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "foundation/NSBundle.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFSClass.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "sdk/wire/IconNames.h"
#include "tests/PluginFixture.h"

namespace {

class ServicesTest : public PluginTest {
 protected:
  ServicesTest() { NSBundle::addResources(std::make_shared<NSBundle>(KZV_BUNDLE_PATH)); }
  void storePicture(const std::string& path) {
    const auto icon = NSImage::imageNamed("dropboxcontextmenu");
    ASSERT_NE(icon, nullptr);
    ASSERT_TRUE(icon->writePNG(local.path() + "/picture.png"));
    const auto file = NSURL::fileURLWithPath(local.path() + "/picture.png");
    ASSERT_TRUE(bounded([&] { return ada->writeFile(*file, path, nullptr, nullptr); }));
  }
  void storeBytes(const std::string& bytes, const std::string& path) {
    ASSERT_TRUE(writeFile(local.path() + "/bytes", bytes));
    const auto file = NSURL::fileURLWithPath(local.path() + "/bytes");
    ASSERT_TRUE(bounded([&] { return ada->writeFile(*file, path, nullptr, nullptr); }));
  }
  std::shared_ptr<NSImage> preview(const std::string& path, NSErrorRef* error = nullptr) {
    return bounded([&] { return ada->preview(path, error); });
  }
  TemporaryFolder local;
};

}  // namespace

TEST_F(ServicesTest, ManyThreadsWantOnePreviewAndOneRequestIsMade) {
  storePicture("/Photo.png");
  ada->contentAtPath("/", false, true, nullptr);
  standIn.forgetRequests();
  std::atomic<int> pictures = 0;
  std::vector<std::thread> panels;
  for (int number = 0; number < 32; ++number) {
    panels.emplace_back(
        [&, number] { pictures += preview(number % 2 == 0 ? "/Photo.png" : "/PHOTO.PNG") != nullptr; });
  }
  for (std::thread& panel : panels) panel.join();
  EXPECT_EQ(pictures, 32);
  EXPECT_EQ(standIn.requests()["files/get_thumbnail_v2"], 1);
}

TEST_F(ServicesTest, AFailedPreviewLetsTheNextOneTry) {
  storePicture("/Photo.png");
  standIn.fault({{"route", "files/get_thumbnail_v2"}, {"times", 10}, {"status", 500}});
  NSErrorRef error;
  EXPECT_EQ(preview("/Photo.png", &error), nullptr);
  EXPECT_NE(error, nullptr);
  standIn.clearFaults();
  EXPECT_NE(preview("/Photo.png"), nullptr);
}

TEST_F(ServicesTest, OnlyPicturesHavePreviewsAndBrokenOnesDoNoHarm) {
  standIn.write("/Docs/text.txt", "text");
  standIn.write("/broken.png", "no picture at all");
  // A bitmap of 54 bytes that claims 60,000 by 60,000 pixels.
  std::string claim(54, '\0');
  claim.replace(0, 3, "BM6");
  claim[10] = 54;
  claim[14] = 40;
  claim.replace(18, 2, "\x60\xEA").replace(22, 2, "\x60\xEA");
  claim[26] = 1;
  claim[28] = 24;
  storeBytes(claim, "/huge.bmp");
  for (const char* path : {"/", "/Docs", "/Docs/text.txt", "/broken.png", "/huge.bmp", "/never.png"}) {
    EXPECT_EQ(preview(path), nullptr) << path;
  }
  // The service may send anything; only a JPEG is a preview, whatever other pictures the library could read.
  for (const char* answer : {"P6 1 1 255\nabc", "no picture", "GIF89a\x7f\x7f\x7f\x7f"}) {
    const std::string path = home.path() + "/answer";
    ASSERT_TRUE(writeFile(path, answer));
    EXPECT_EQ(NSImage::initWithContentsOfURL(*NSURL::fileURLWithPath(path), NSImage::Format::jpeg), nullptr)
        << answer;
  }
  storePicture("/picture.png");
  standIn.fault(
      {{"route", "files/get_thumbnail_v2"}, {"times", 1}, {"status", 200}, {"body", "<html>Sign in</html>"}});
  EXPECT_EQ(preview("/picture.png"), nullptr) << "an answer of somebody else";
  standIn.clearFaults();
  EXPECT_NE(preview("/picture.png"), nullptr) << "what came before was kept";
}

TEST_F(ServicesTest, IconsComeFromTheBundle) {
  standIn.write("/Docs/text.txt", "text");
  ada->contentAtPath("/Docs", false, true, nullptr);
  standIn.forgetRequests();
  EXPECT_NE(ada->icon("/", nullptr), nullptr);
  EXPECT_NE(ada->icon("/Docs/text.txt", nullptr), nullptr);
  EXPECT_NE(ada->icon("/Docs", nullptr), nullptr);
  EXPECT_TRUE(standIn.requests().empty());
  NSErrorRef error;
  EXPECT_EQ(ada->icon("/never", &error), nullptr);
  EXPECT_EQ(fsErrorCode(error), FSErrorCode::notFound);
}

TEST_F(ServicesTest, TheBundleHasAPictureForEachIconNameAndNoOther) {
  std::set<std::string> needed{"dropboxcontextmenu.png"};
  for (const std::string_view name : kzv::sdk::allIconNames()) needed.insert(std::string(name) + "48.png");
  std::set<std::string> found;
  for (const auto& file : std::filesystem::directory_iterator(KZV_BUNDLE_PATH "/Resources")) {
    if (file.path().extension() == ".png") found.insert(file.path().filename());
  }
  EXPECT_EQ(found, needed);
  for (const std::string& name : found) {
    const auto picture = NSImage::imageNamed(name.substr(0, name.size() - 4));
    EXPECT_TRUE(picture && picture->width() == 48 && picture->height() == 48) << name;
  }
}

TEST_F(ServicesTest, SpaceMayBeLessThanNothing) {
  standIn.write("/file", std::string(5000, 'x'));
  standIn.settings({{"account", "ada-token"}, {"quota", 2000}});
  const auto space = bounded([&] { return ada->fsAttributes("/", nullptr); });
  ASSERT_NE(space, nullptr);
  EXPECT_EQ(as<NSNumber>(space->objectForKey(NSFileSystemSize))->int64Value(), 2000);
  EXPECT_EQ(as<NSNumber>(space->objectForKey(NSFileSystemFreeSize))->int64Value(), -3000);
  const auto summary = bounded([&] { return KZVDropboxFS::dropboxInfoFor(*ada->userId()); });
  EXPECT_EQ(*textOf(summary->objectForKey("name")), "Ada");
  EXPECT_EQ(*textOf(summary->objectForKey("email")), "ada@example.com");
  EXPECT_EQ(*textOf(summary->objectForKey("free")), "-3 KB");
  EXPECT_EQ(*textOf(summary->objectForKey("total")), "2 KB");
}

TEST_F(ServicesTest, LinksAreMadeInTheDesktopAccountOnly) {
  standIn.write("/Docs/text.txt", "text");
  auto& plugin = KZVDropboxFSClass::shared();
  NSErrorRef error;
  EXPECT_FALSE(bounded([&] { return plugin.publicLink("/Docs/text.txt", &error); }));
  EXPECT_EQ(error, nullptr);
  KZVDropboxFS::setDropboxDesktopUserId(*ada->userId());
  const auto link = bounded([&] { return plugin.publicLink("/Docs/text.txt", &error); });
  ASSERT_TRUE(link) << (error ? error->description() : "no error");
  EXPECT_EQ(link->audience, "public");
  EXPECT_EQ(bounded([&] { return KZVDropboxFS::dropboxPublic("/Docs/text.txt", &error); }), link->url);
  EXPECT_FALSE(bounded([&] { return plugin.publicLink("/never", &error); }));
  EXPECT_NE(error, nullptr);
}
