#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/KZVSupport.h"
#include "core/L.h"
#include "core/StringsFile.h"
#include "foundation/NSBundle.h"

namespace {

using Lines = std::vector<std::size_t>;

TEST(StringsFile, ReadsEntriesAndReportsMalformedOnesByLine) {
  struct Case {
    const char* name;
    const char* text;
    StringsTable table;
    Lines problems;
  };
  const Case cases[] = {
      {"empty", "", {}, {}},
      {"several on a line, no blanks", "\"a\"=\"b\";\"c\"=\"d\";", {{"a", "b"}, {"c", "d"}}, {}},
      {"byte order mark", "\xEF\xBB\xBF\"a\" = \"b\";", {{"a", "b"}}, {}},
      {"comments of both kinds", "/* x \"y\" = */ // z\n\"a\" /* , */ = // ;\n \"b\" ;", {{"a", "b"}}, {}},
      {"comment marks inside quotes are text", "\"//\" = \"/* b */\";", {{"//", "/* b */"}}, {}},
      {"escapes", R"("a\"b" = "1\n2\t3\r4\\5\'6";)", {{"a\"b", "1\n2\t3\r4\\5'6"}}, {}},
      {"UTF-16 units", R"("u" = "\U00e9\U20AC";)", {{"u", "é€"}}, {}},
      {"a pair of units is one character", R"("u" = "\UD83D\UDE00";)", {{"u", "😀"}}, {}},
      {"a semicolon inside quotes ends nothing", "\"a\" = \";\";\"b\"=\"c\";", {{"a", ";"}, {"b", "c"}}, {}},
      {"the last of equal keys counts", "\"a\"=\"1\";\n\"a\"=\"2\";", {{"a", "2"}}, {}},
      {"missing value", "\"a\" = ;\n\"b\" = \"c\";", {{"b", "c"}}, {1}},
      {"missing equals sign", "\n\"a\" \"x\";\n\"b\" = \"c\";", {{"b", "c"}}, {2}},
      {"bad escape", "\"a\" = \"\\Uzz\";\n\"b\" = \"c\";", {{"b", "c"}}, {1}},
      {"half a pair, then text", R"("a" = "\UD83D\U0041";"b"="c";)", {{"b", "c"}}, {1}},
      {"unterminated text", "\"b\" = \"c\";\n\"a\" = \"x;\n", {{"b", "c"}}, {2}},
      {"unterminated comment", "\"b\" = \"c\"; /* x", {{"b", "c"}}, {}},
      {"text ends in an escape", "\"a\" = \"\\", {}, {1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Lines problems;
    EXPECT_EQ(parseStringsFile(c.text, &problems), c.table);
    EXPECT_EQ(problems, c.problems);
  }
}

TEST(Languages, TheFirstVariableThatIsSetDecides) {
  struct Case {
    const char* name;
    const char* lcAll;
    const char* lcMessages;
    const char* lang;
    std::vector<std::string> languages;
  };
  const Case cases[] = {
      {"nothing set", nullptr, nullptr, nullptr, {"en"}},
      {"LANG alone", nullptr, "", "de_AT.UTF-8", {"de_AT", "de", "en"}},
      {"LC_MESSAGES before LANG", nullptr, "fr", "de_DE", {"fr", "en"}},
      {"LC_ALL before all", "C", "fr", "de", {"en"}},
      {"English once", nullptr, nullptr, "en_US.UTF-8", {"en_US", "en"}},
      {"never a path", nullptr, nullptr, "../../etc", {"en"}},
      {"never a path, slash", nullptr, nullptr, "de/../x", {"en"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(languagesFromEnvironment(c.lcAll, c.lcMessages, c.lang), c.languages);
  }
}

TEST(Localisation, PrefersTheUsersLanguageThenEnglishThenTheKey) {
  namespace fs = std::filesystem;
  const fs::path bundle = fs::temp_directory_path() / (KZVSupport::uniquePathComponent() + ".bundle");
  const auto write = [&](const char* language, const char* text) {
    const fs::path folder = bundle / "Resources" / (std::string(language) + ".lproj");
    fs::create_directories(folder);
    std::ofstream(folder / "Localizable.strings") << text;
  };
  write("de", "\"both\" = \"beide\";");
  write("en", "\"both\" = \"both\"; \"english\" = \"only English\";");
  ::setenv("LC_ALL", "de_DE.UTF-8", 1);
  NSBundle::addResources(std::make_shared<NSBundle>(bundle.string()));
  EXPECT_EQ(L("both"), "beide");
  EXPECT_EQ(L("english"), "only English");
  EXPECT_EQ(L("no such key"), "no such key");
  fs::remove_all(bundle);
  EXPECT_EQ(L("both"), "beide");  // read once
}

}  // namespace
