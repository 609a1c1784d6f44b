#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/FileLock.h"
#include "foundation/NSBundle.h"
#include "foundation/NSDate.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSImage.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/NSUserDefaults.h"
#include "foundation/PrivateFiles.h"
#include "foundation/StandardFolders.h"
#include "testing/TemporaryFolder.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

constexpr std::uint64_t plenty = 1'000'000;

class Folder : public TemporaryFolder {
 public:
  std::string operator/(const std::string& name) const { return path() + "/" + name; }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(path())) found.insert(entry.path().filename());
    return found;
  }
};

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
}

std::int64_t codeOf(const NSErrorRef& error) { return error ? error->code() : 0; }

std::string contents(const std::string& path) { return readFile(path, plenty).value_or("<unreadable>"); }

}  // namespace

TEST(ReadFile, RefusesWhatIsNoPlainFileAndNeverHangs) {
  const Folder folder;
  ASSERT_TRUE(writeFile(folder / "ten", "0123456789"));
  ASSERT_TRUE(writeFile(folder / "empty", ""));
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  fs::create_symlink("pipe", folder / "link to pipe");
  struct Case {
    const char* name;
    std::string path;
    std::uint64_t limitBytes;
    std::optional<std::string> bytes;
    int code;
  };
  const Case cases[] = {{"plain", folder / "ten", 10, "0123456789", 0},
                        {"too large by one", folder / "ten", 9, std::nullopt, EFBIG},
                        {"empty", folder / "empty", 0, "", 0},
                        {"pipe nobody writes", folder / "pipe", plenty, std::nullopt, EINVAL},
                        {"link to it", folder / "link to pipe", plenty, std::nullopt, EINVAL},
                        {"device without end", "/dev/zero", plenty, std::nullopt, EINVAL},
                        {"folder", folder.path(), plenty, std::nullopt, EISDIR},
                        {"missing", folder / "missing", plenty, std::nullopt, ENOENT},
                        {"name with a NUL", folder / "ten\0x"s, plenty, std::nullopt, EINVAL}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NSErrorRef error;
    EXPECT_EQ(readFile(c.path, c.limitBytes, &error), c.bytes);
    EXPECT_EQ(codeOf(error), c.code);
  }
}

TEST(WriteFileAtomically, ReplacesWithTheModeAskedFor) {
  const Folder folder;
  const std::string longName(255, 'n');
  ASSERT_TRUE(writeFile(folder / "old", "longer than what follows"));
  for (const std::string& name : {"old"s, "new"s, longName}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(writeFileAtomically(folder / name, "bytes", 0600));
    EXPECT_EQ(contents(folder / name), "bytes");
    EXPECT_EQ(modeOf(folder / name), 0600U);
  }
  EXPECT_EQ(folder.names(), (std::set<std::string>{"old", "new", longName}));
}

TEST(WriteFileAtomically, LeavesNothingOnFailure) {
  const Folder folder;
  ASSERT_TRUE(NSFileManager::defaultManager().createDirectoryAtPath(folder / "taken/inner", true));
  struct Case {
    const char* name;
    std::string path;
    int code;
  };
  const Case cases[] = {{"a folder has the name", folder / "taken", EISDIR},
                        {"no such folder", folder / "missing/file", ENOENT},
                        {"name too long", folder / std::string(256, 'n'), ENAMETOOLONG},
                        {"name with a NUL", folder / "file\0x"s, EINVAL}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NSErrorRef error;
    EXPECT_FALSE(writeFileAtomically(c.path, "bytes", 0600, &error));
    EXPECT_EQ(codeOf(error), c.code);
    EXPECT_EQ(folder.names(), std::set<std::string>{"taken"});
  }
}

TEST(FileManager, RemovesFoldersAndLinksButNotWhatLinksPointTo) {
  auto& manager = NSFileManager::defaultManager();
  const Folder folder;
  struct Case {
    const char* name;
    const char* removed;
    int code;
    std::set<std::string> left;
  };
  const Case cases[] = {{"folder with contents", "full", 0, {"file", "link"}},
                        {"link", "link", 0, {"file", "full"}},
                        {"link with a slash", "link/", 0, {"file", "full"}},
                        {"name with a NUL", nullptr, EINVAL, {"file", "full", "link"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(manager.createDirectoryAtPath(folder / "full/inner", true));
    ASSERT_TRUE(writeFile(folder / "full/inner/x", "kept"));
    ASSERT_TRUE(writeFile(folder / "file", ""));
    if (!fs::is_symlink(folder / "link")) fs::create_directory_symlink("full", folder / "link");
    NSErrorRef error;
    EXPECT_EQ(manager.removeItemAtPath(folder / (c.removed ? c.removed : "file\0x"s), &error), c.code == 0);
    EXPECT_EQ(codeOf(error), c.code);
    EXPECT_EQ(folder.names(), c.left);
    if (!c.left.contains("full")) continue;
    EXPECT_EQ(contents(folder / "full/inner/x"), "kept");
  }
  EXPECT_FALSE(manager.removeItemAtURL(NSURL("https://example.org/x")));
}

TEST(FileManager, CreatesFolders) {
  auto& manager = NSFileManager::defaultManager();
  const Folder folder;
  ASSERT_TRUE(writeFile(folder / "file", "123"));
  struct Case {
    const char* name;
    const char* path;
    bool withIntermediates;
    int code;
  };
  const Case cases[] = {{"missing parent", "a/b", false, ENOENT},
                        {"with parents", "a/b/c", true, 0},
                        {"existing, alone", "a", false, EEXIST},
                        {"file in its place", "file", true, ENOTDIR},
                        {"file above", "file/x", true, ENOTDIR}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NSErrorRef error;
    EXPECT_EQ(manager.createDirectoryAtPath(folder / c.path, c.withIntermediates, &error), c.code == 0);
    EXPECT_EQ(codeOf(error), c.code);
    EXPECT_TRUE(c.code != 0 || fs::is_directory(folder / c.path));
  }
  NSErrorRef error;
  EXPECT_EQ(manager.fileSize(folder / "file"), 3U);
  EXPECT_EQ(manager.fileSize(folder / "a", &error), std::nullopt);
  EXPECT_EQ(codeOf(error), EISDIR);
}

TEST(StandardFolders, FollowTheEnvironment) {
  struct Case {
    const char* name;
    const char* kzvHome;
    const char* xdgConfig;
    std::string config;
  };
  const Case cases[] = {
      {"own home", "/own/", "/xdg", "/own/config"},
      {"own home, relative", "build/own", "", fs::current_path().string() + "/build/own/config"},
      {"XDG", "", "/xdg", "/xdg/kzv"},
      {"relative XDG folders do not count", "", "xdg", "/home/someone/.config/kzv"},
      {"the user's home", "", "", "/home/someone/.config/kzv"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ::setenv("KZV_HOME", c.kzvHome, 1);
    ::setenv("XDG_CONFIG_HOME", c.xdgConfig, 1);
    ::setenv("HOME", "/home/someone/", 1);
    EXPECT_EQ(configFolder(), c.config);
    EXPECT_EQ(expandingTilde("~/x"), "/home/someone/x");
    EXPECT_EQ(expandingTilde("~x"), "~x");
  }
}

TEST(Defaults, ValuesKeepTheirTypes) {
  const Folder folder;
  const std::string file = folder / "sub/suite.defaults";
  const auto moment = NSDate::Time(std::chrono::nanoseconds(1'700'000'000'123'456'789));
  struct Case {
    const char* name;
    id value;
  };
  const Case cases[] = {{"text", str("it's \"quoted\"\n\u00e9")},
                        {"text that is no UTF-8", str("\xff\xfe")},
                        {"text with a NUL", str("a\0b"s)},
                        {"true", NSNumber::withBool(true)},
                        {"integer", NSNumber::withInt(std::numeric_limits<std::int64_t>::min())},
                        {"real", NSNumber::withDouble(0.1)},
                        {"infinite", NSNumber::withDouble(std::numeric_limits<double>::infinity())},
                        {"date", std::make_shared<NSDate>(moment)}};
  NSUserDefaults written(file);
  for (const Case& c : cases) written.setValue(c.value, c.name);
  ASSERT_TRUE(written.synchronize());
  const NSUserDefaults read(file);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const id value = read.objectForKey(c.name);
    ASSERT_TRUE(value);
    EXPECT_TRUE(isEqual(value, c.value)) << value->description();
    EXPECT_EQ(value->kind(), c.value->kind());
  }
  EXPECT_EQ(as<NSNumber>(read.objectForKey("true"))->origin(), NSNumber::Origin::boolean);
  EXPECT_EQ(NSUserDefaults::initWithSuiteName("a/b"), nullptr);
  EXPECT_EQ(NSUserDefaults::initWithSuiteName(""), nullptr);
}

TEST(Defaults, WhatIsDamagedIsKeptAsideEachTime) {
  const Folder folder;
  const std::string file = folder / "suite.defaults";
  const std::array<std::string, 4> damaged = {"{'cut': <'of", "\0\0\0\0"s, "[1, 2]",
                                              std::string(plenty + 1, ' ')};
  int number = 0;
  for (const std::string& text : damaged) {
    SCOPED_TRACE(++number);
    ASSERT_TRUE(writeFile(file, text));
    NSUserDefaults defaults(file);
    EXPECT_EQ(defaults.objectForKey("k"), nullptr);
    defaults.setValue(str("v"), "k");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(readFile(file + ".damaged-" + std::to_string(number), 2 * plenty), text);
    EXPECT_EQ(*textOf(NSUserDefaults(file).objectForKey("k")), "v");
  }
}

TEST(Defaults, AFileThatCannotBeReadIsNotReplaced) {
  const Folder folder;
  const std::string file = folder / "suite.defaults";
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);  // unreadable for root too, and a rename would replace it
  NSUserDefaults defaults(file);
  defaults.setValue(str("v"), "k");
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_TRUE(fs::is_fifo(file));
  EXPECT_EQ(*textOf(defaults.objectForKey("k")), "v");
  ASSERT_TRUE(NSFileManager::defaultManager().removeItemAtPath(file));
  EXPECT_TRUE(defaults.synchronize()) << "the value was still pending";
  EXPECT_EQ(*textOf(NSUserDefaults(file).objectForKey("k")), "v");
}

TEST(Defaults, TwoOfOneSuiteKeepEachOthersKeys) {
  const Folder folder;
  const std::string file = folder / "suite.defaults";
  NSUserDefaults one(file);
  NSUserDefaults two(file);
  one.setValue(str("1"), "one");
  two.setValue(str("2"), "two");
  ASSERT_TRUE(one.synchronize());
  ASSERT_TRUE(two.synchronize());
  EXPECT_EQ(*textOf(two.objectForKey("one")), "1");
  one.removeObjectForKey("one");
  ASSERT_TRUE(one.synchronize());
  EXPECT_EQ(*textOf(one.objectForKey("two")), "2");
  ASSERT_TRUE(two.synchronize());
  EXPECT_EQ(two.objectForKey("one"), nullptr);
}

namespace {

constexpr int keysOfWriter = 20;

std::string keyOf(int writer, int key) { return std::to_string(writer) + "." + std::to_string(key); }

bool writeKeys(const std::string& file, int writer) {
  NSUserDefaults defaults(file);
  bool areStored = true;
  for (int key = 0; key < keysOfWriter; ++key) {
    defaults.setValue(NSNumber::withInt(key), keyOf(writer, key));
    areStored = defaults.synchronize() && areStored;
  }
  return areStored;
}

}  // namespace

TEST(Defaults, WritersAtTheSameTimeLoseNothing) {
  const Folder folder;
  const std::string file = folder / "suite.defaults";
  std::vector<pid_t> processes;
  for (int writer = 0; writer < 2; ++writer) {
    processes.push_back(::fork());
    if (processes.back() == 0) ::_exit(writeKeys(file, writer) ? 0 : 1);
  }
  std::array<bool, 2> areStored{};
  {
    const std::jthread first([&] { areStored[0] = writeKeys(file, 2); });
    const std::jthread second([&] { areStored[1] = writeKeys(file, 3); });
  }
  EXPECT_EQ(areStored, (std::array{true, true}));
  for (const pid_t process : processes) {
    int status = -1;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  const NSUserDefaults all(file);
  for (int writer = 0; writer < 4; ++writer) {
    for (int key = 0; key < keysOfWriter; ++key) {
      EXPECT_TRUE(all.objectForKey(keyOf(writer, key))) << "lost " << keyOf(writer, key);
    }
  }
}

TEST(Defaults, ALockThatAnotherProcessKeepsIsWaitedForOnlySoLong) {
  const Folder folder;
  const std::string file = folder / "suite.defaults";
  ASSERT_TRUE(writeFile(file, "{'k': <'v'>}"));
  std::array<int, 2> ready{};
  ASSERT_EQ(::pipe(ready.data()), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const FileLock lock(file + ".lock", std::chrono::seconds(0));
    if (::write(ready[1], lock.isHeld() ? "y" : "n", 1) == 1)
      while (true) ::pause();
    ::_exit(1);
  }
  char isHeld = 0;
  ASSERT_EQ(::read(ready[0], &isHeld, 1), 1);
  ASSERT_EQ(isHeld, 'y');
  NSUserDefaults defaults(file);
  EXPECT_EQ(*textOf(defaults.objectForKey("k")), "v") << "reading needs no lock";
  EXPECT_TRUE(defaults.synchronize());
  defaults.setValue(str("other"), "k");
  NSErrorRef error;
  EXPECT_FALSE(defaults.synchronize(&error));
  EXPECT_EQ(codeOf(error), EWOULDBLOCK);
  const std::string text = error ? error->localizedDescription() : "";
  EXPECT_NE(text.find("(process " + std::to_string(holder) + ") holds its lock"), std::string::npos) << text;
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  EXPECT_TRUE(defaults.synchronize()) << "what is pending is stored when the lock is free again";
  EXPECT_EQ(*textOf(NSUserDefaults(file).objectForKey("k")), "other");
}

TEST(Defaults, AFullDiskKeepsTheOldFile) {
  const Folder folder;
  // In a mount namespace of its own, so that the disk goes with this process however it ends.
  const bool isMounted = ::unshare(CLONE_NEWNS) == 0 &&
                         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         ::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=64k") == 0;
  if (!isMounted) {
    GTEST_SKIP() << "needs the right to mount a small disk: " << std::strerror(errno);
  }
  const std::unique_ptr<const char, void (*)(const char*)> unmount(
      folder.path().c_str(), [](const char* path) { ::umount2(path, MNT_DETACH); });
  const std::string file = folder / "suite.defaults";
  NSUserDefaults defaults(file);
  defaults.setValue(str("old"), "k");
  ASSERT_TRUE(defaults.synchronize());
  const auto before = folder.names();
  defaults.setValue(str(std::string(100'000, 'x')), "large");
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_EQ(*textOf(NSUserDefaults(file).objectForKey("k")), "old");
  EXPECT_EQ(folder.names(), before);
  defaults.removeObjectForKey("large");
  defaults.setValue(str("new"), "k");
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(*textOf(NSUserDefaults(file).objectForKey("k")), "new");
}

TEST(PrivateFiles, OwnFoldersAreMadeAndKeptForTheOwnerOnly) {
  const Folder folder;
  ::setenv("KZV_HOME", (folder / "home").c_str(), 1);
  fs::create_directories(folder / "home");
  fs::permissions(folder / "home", fs::perms(0755));
  fs::create_directories(folder / "home/config");
  const mode_t old = ::umask(0);
  NSErrorRef error;
  EXPECT_TRUE(makePrivateFolder(folder / "home/data/credentials/key", &error)) << codeOf(error);
  EXPECT_TRUE(makePrivateFolder(folder / "home/config", &error)) << codeOf(error);
  ::umask(old);
  for (const char* made : {"home/data", "home/data/credentials", "home/data/credentials/key", "home/config"})
    EXPECT_EQ(modeOf(folder / made), 0700U) << made;
  EXPECT_EQ(modeOf(folder / "home"), 0755U) << "the user's choice, not ours";
  fs::permissions(folder / "home/data", fs::perms(0755));
  EXPECT_TRUE(makePrivateFolder(folder / "home/data/credentials/key"));
  EXPECT_EQ(modeOf(folder / "home/data"), 0700U) << "repaired";
  ASSERT_TRUE(writeFile(folder / "home/state", ""));
  EXPECT_FALSE(makePrivateFolder(folder / "home/state", &error));
  EXPECT_EQ(codeOf(error), ENOTDIR);
  if (::geteuid() != 0) return;
  ASSERT_EQ(::chown((folder / "home/data").c_str(), 65534, 65534), 0);
  const pid_t child = ::fork();  // as a user whose folder belongs to somebody else
  if (child == 0) {
    if (::chmod(folder.path().c_str(), 0755) != 0 || ::setresuid(65533, 65533, 65533) != 0) ::_exit(2);
    ::_exit(!makePrivateFolder(folder / "home/data", &error) && codeOf(error) == EPERM ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(PrivateFiles, AreReadOnlyWhenTheyAreOurs) {
  const Folder folder;
  const auto file = [&](const std::string& name, fs::perms mode) {
    EXPECT_TRUE(writeFile(folder / name, "secret"));
    fs::permissions(folder / name, mode);
  };
  file("closed", fs::perms(0600));
  file("open", fs::perms(0666));
  fs::create_symlink(folder / "closed", folder / "link");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  struct Case {
    const char* name;
    int error;  // 0: read
  };
  const Case cases[] = {{"closed", 0},    {"open", 0},        {"link", ELOOP},
                        {"pipe", EINVAL}, {"absent", ENOENT}, {".", EISDIR}};
  for (const Case& c : cases) {
    NSErrorRef error;
    EXPECT_EQ(readPrivateFile(folder / c.name, plenty, &error).has_value(), c.error == 0) << c.name;
    EXPECT_EQ(codeOf(error), c.error) << c.name;
  }
  EXPECT_EQ(modeOf(folder / "open"), 0600U) << "closed before it is read";
  EXPECT_FALSE(readPrivateFile(folder / "closed", 5));
}

namespace {

std::string fromHex(std::string_view digits) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(at, 2)), nullptr, 16));
  }
  return bytes;
}

// Two by one pixels, red and blue.
const std::string smallPicture = fromHex(
    "89504e470d0a1a0a0000000d49484452000000020000000108020000007b40e8dd0000000d49444154789c63f8cf0004ff010700"
    "01ffe2239e590000000049454e44ae426082");
// 2001 by 2000 black pixels.
std::string largePicture() {
  return fromHex(
             "89504e470d0a1a0a0000000d49484452000007d1000007d001000000005d8192ea"
             "000001ff4944415478daedc13101000000c2a0f54f6d0c1fa0") +
         std::string(488, '\0') + fromHex("781ab12900014049178f0000000049454e44ae426082");
}
// One by one pixel, as GIF.
const std::string gifPicture =
    fromHex("47494638396101000100800000000000ffffff21f90401000000002c00000000010001000002024401003b");
// Claims 60,000 by 60,000 pixels in less than a hundred bytes.
const std::string hugePicture = fromHex(
    "89504e470d0a1a0a0000000d494844520000ea600000ea6008020000000fb0e2150000000c49444154789c6360a03d0000006400"
    "0186643c350000000049454e44ae426082");

}  // namespace

TEST(Image, ReadsAndWritesPicturesAndRefusesTheRest) {
  const Folder folder;
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  struct Case {
    const char* name;
    std::optional<std::string> bytes;
    int width;  // 0 for no picture
  };
  const Case cases[] = {{"picture", smallPicture, 2},
                        {"cut off in the header", smallPicture.substr(0, 30), 0},
                        {"flipped byte", std::string(smallPicture).replace(45, 1, "\xff"), 0},
                        {"claims 60,000 by 60,000", hugePicture, 0},
                        {"more than 4 million pixels", largePicture(), 0},
                        {"of another form", gifPicture, 0},
                        {"text", "no picture", 0},
                        {"missing", std::nullopt, 0},
                        {"pipe", std::nullopt, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.bytes) {
      ASSERT_TRUE(writeFile(folder / c.name, *c.bytes));
    }
    const auto image =
        NSImage::initWithContentsOfURL(*NSURL::fileURLWithPath(folder / c.name), NSImage::Format::png);
    EXPECT_EQ(image ? image->width() : 0, c.width);
  }
  // The good one is still there; what was read can be written.
  const auto image =
      NSImage::initWithContentsOfURL(*NSURL::fileURLWithPath(folder / "picture"), NSImage::Format::png);
  ASSERT_TRUE(image);
  ASSERT_TRUE(image->writePNG(folder / "out"));
  const auto again =
      NSImage::initWithContentsOfURL(*NSURL::fileURLWithPath(folder / "out"), NSImage::Format::png);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->width(), 2);
  EXPECT_EQ(again->height(), 1);
  NSErrorRef error;
  EXPECT_FALSE(image->writePNG(folder / "missing/out", &error));
  EXPECT_EQ(codeOf(error), ENOENT);
}

TEST(Log, BlanksSecretsAndKeepsTheRest) {
  struct Case {
    const char* name;
    std::string message;
    std::string written;
  };
  const std::string token = "sl.u.AbC-dEf_0123456789";
  const Case cases[] = {
      {"header", "Authorization: Bearer " + token, "Authorization: Bearer ***"},
      {"header, other case", "authorization: bearer abc123", "authorization: bearer ***"},
      {"JSON", R"({"access_token":")" + token + R"(","expires_in":14400})",
       R"({"access_token":"***","expires_in":14400})"},
      {"JSON with blanks", R"("refresh_token" : "r3fr", "uid")", R"("refresh_token" : "***", "uid")"},
      {"query", "GET /cb?state=7&code=Zx9%2Fabc-123_45&x=1", "GET /cb?state=7&code=***&x=1"},
      {"form", "code_verifier=short&client_secret=s3", "code_verifier=***&client_secret=***"},
      {"basic", "Basic dXNlcjpwYXNzd29yZA==", "Basic ***"},
      {"token alone", "got " + token + ", stored", "got ***, stored"},
      {"error code", "files/move: HTTP code: 409 path/not_found",
       "files/move: HTTP code: 409 path/not_found"},
      {"words", "the access_token has expired", "the access_token has expired"},
      {"another name", "zip_code=1234567890123", "zip_code=1234567890123"},
      {"line feed", "a\nb\x7f", "a\\x0Ab\\x7F"},
      {"not ASCII", "/caf\u00e9", "/caf\u00e9"}};
  testing::internal::CaptureStderr();
  for (const Case& c : cases) NSLog(NSLogLevel::error, c.name, c.message);
  std::istringstream lines(testing::internal::GetCapturedStderr());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line.substr(line.find(" error ") + 7), c.name + ": "s + c.written);
  }
}

TEST(Log, DropsWhatIsBelowItsLevel) {
  testing::internal::CaptureStderr();
  NSLog(NSLogLevel::info, "f", "below the first level");
  setLogLevel(NSLogLevel::info);
  NSLog(NSLogLevel::info, "f", "kept");
  setLogLevel(NSLogLevel::off);
  NSLog(NSLogLevel::error, "f", "off");
  setLogLevel(NSLogLevel::warning);
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(text.ends_with(" info f: kept\n")) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(Log, LongLinesFromManyThreadsAreNeverTorn) {
  constexpr int threadCount = 4;
  constexpr int linesEach = 20;
  testing::internal::CaptureStderr();
  const std::string word(200'000, 'x');  // a recursive search for secrets would end the stack
  {
    std::vector<std::jthread> threads;
    for (int number = 0; number < threadCount; ++number) {
      threads.emplace_back([&] {
        for (int line = 0; line < linesEach; ++line) NSLog(NSLogLevel::error, "f", word);
      });
    }
  }
  std::istringstream lines(testing::internal::GetCapturedStderr());
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_TRUE(line.ends_with(" error f: " + word)) << line.size() << " bytes in line " << count;
  }
  EXPECT_EQ(count, threadCount * linesEach);
}
