#include "kzv/Formatting.h"

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "core/FSError.h"
#include "core/KZVConstants.h"
#include "foundation/NSString.h"
#include "kzv/Entry.h"
#include "kzv/HostError.h"

namespace kzv::cli {

namespace {

TEST(Formatting, DurationsShowHoursOnlyWhenThereAreSome) {
  using std::chrono::seconds;
  EXPECT_EQ(duration(seconds(7)), "0:07");
  EXPECT_EQ(duration(seconds(725)), "12:05");
  EXPECT_EQ(duration(seconds(3599)), "59:59");
  EXPECT_EQ(duration(seconds(3725)), "1:02:05");
}

TEST(Formatting, LocalTimeFollowsTheTimeZone) {
  ::setenv("TZ", "XYZ-2", 1);  // two hours ahead of UTC
  ::tzset();
  EXPECT_EQ(localTime(std::chrono::system_clock::from_time_t(1'714'548'600)), "2024-05-01 09:30");
  EXPECT_EQ(localTime(std::chrono::system_clock::from_time_t(-1)), "1970-01-01 01:59");
}

TEST(Formatting, HarmlessTextHasNoPowerOverATerminal) {
  struct Case {
    const char* name;
    const char* text;
    const char* shown;
  };
  const Case cases[] = {
      {"letters of any script stay", "größe 日本 😀 é", "größe 日本 😀 é"},
      {"line ends", "a\nb\rc\td", "a\\nb\\rc\\td"},
      {"escape sequence", "\x1b[31mred", "\\x1b[31mred"},
      {"DEL", "a\x7f", "a\\x7f"},
      {"C1 control in UTF-8", "a\xC2\x9B[m", "a\\xc2\\x9b[m"},
      {"no-break space is no control", "a\xC2\xA0.", "a\xC2\xA0."},
      {"direction override", "txt.\xE2\x80\xAE.exe", "txt.\\xe2\\x80\\xae.exe"},
      {"isolate", "\xE2\x81\xA7", "\\xe2\\x81\\xa7"},
      {"dash beside the overrides stays", "\xE2\x80\x93", "\xE2\x80\x93"},
      {"single C1 byte", "\x9B[m", "\\x9b[m"},
      {"broken sequence", "a\xE2\x82", "a\\xe2\\x82"},
      {"half a surrogate pair", "\xED\xA0\x80", "\\xed\\xa0\\x80"},
  };
  for (const Case& c : cases) EXPECT_EQ(harmless(c.text), c.shown) << c.name;
}

TEST(Formatting, JsonTextsAreValidUtf8) {
  const std::pair<const char*, const char*> cases[] = {{"a\nü😀", "a\nü😀"},
                                                       {"\xff.\xfe", "\uFFFD.\uFFFD"},
                                                       {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
                                                       {"a\xE2\x82", "a\uFFFD\uFFFD"},
                                                       {"\xC0\xAF", "\uFFFD\uFFFD"}};
  for (const auto& [text, valid] : cases) EXPECT_EQ(validUtf8(text), valid);
}

TEST(Formatting, TypedPathsBecomeRemotePaths) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"", "/"},      {".", "/"},  {"a", "/a"},     {"//a///b//", "/a/b"}, {"/a/./b/../c", "/a/c"},
      {"/a/..", "/"}, {"/..", {}}, {"a/../..", {}}, {"/...", "/..."},      {"/a\xff", {}}};
  for (const auto& [typed, path] : cases) EXPECT_EQ(remotePath(typed), path) << typed;
}

NSErrorRef made(std::string_view domain, std::int64_t code, const char* text = nullptr) {
  return std::make_shared<NSError>(
      std::string(domain), code,
      text ? NSDictionary::with({{NSLocalizedDescriptionKey, str(text)}}) : nullptr);
}

TEST(HostErrors, EachFailureHasItsStatusAndItsLine) {
  struct Case {
    NSErrorRef error;
    const char* path;
    ExitStatus status;
    const char* line;
  };
  const Case cases[] = {
      {fsError(FSErrorCode::exists, "something is in the way"), "/a", ExitStatus::failed,
       "/a: something is in the way (FSErrorDomain 2)"},
      {made("No file", -1), "/a", ExitStatus::failed, "/a: No file (No file -1)"},
      {made(CanceledByUserErrorDomain, -1), "/a", ExitStatus::stopped,
       "/a: stopped (CanceledByUserErrorDomain -1)"},
      {stoppedError(), "", ExitStatus::stopped, "stopped (CanceledByUserErrorDomain -1)"},
      {noSuchItemError(), "/x\n", ExitStatus::failed, "/x\\n: no such file or folder (NSPOSIXErrorDomain 2)"},
      {hostError(HostErrorCode::noAccount, "none"), "", ExitStatus::noAccount, "none (KZVHostErrorDomain 1)"},
      {hostError(HostErrorCode::unlinked, "gone"), "/a", ExitStatus::noAccount,
       "/a: gone (KZVHostErrorDomain 2)"},
      {hostError(HostErrorCode::badInput, "bad\x1b"), "", ExitStatus::usage,
       "bad\\x1b (KZVHostErrorDomain 3)"},
      {hostError(HostErrorCode::notSupported, "no"), "", ExitStatus::failed, "no (KZVHostErrorDomain 4)"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(exitStatusFor(*c.error), c.status) << c.line;
    EXPECT_EQ(failureLine("ls", c.path, *c.error), std::string("kzv: ls: ") + c.line);
  }
}

TEST(Entries, JsonHoldsWhatIsKnownAndShownNamesMarkFolders) {
  Entry file;
  file.path = "/d/\xff.txt";
  file.name = "\xff.txt";
  file.sizeBytes = 18'446'744'073'709'551'615U;
  EXPECT_EQ(
      file.json(),
      "{\"path\":\"/d/\uFFFD.txt\",\"name\":\"\uFFFD.txt\",\"dir\":false,\"size\":18446744073709551615}");
  EXPECT_EQ(file.shownName(), "\\xff.txt");
  Entry folder;
  folder.path = folder.name = "/";
  folder.isDirectory = true;
  folder.modified = std::chrono::system_clock::from_time_t(1'714'548'600);
  EXPECT_EQ(folder.json(),
            R"({"path":"/","name":"/","dir":true,"size":0,"modified":"2024-05-01T07:30:00Z"})");
  EXPECT_EQ(folder.shownPath(), "/");
  folder.name = "d";
  EXPECT_EQ(folder.shownName(), "d/");
}

}  // namespace

}  // namespace kzv::cli
