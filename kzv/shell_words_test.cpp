#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kzv/CommandLine.h"
#include "kzv/shell/Completion.h"
#include "kzv/shell/LineWords.h"

namespace kzv::cli {

namespace {

using Words = std::vector<std::string>;

TEST(ShellWords, ALineIsTakenApartAsInAPosixShell) {
  ::setenv("HOME", "/home/ada", 1);
  struct Case {
    const char* line;
    Words words;
    const char* error;  // part of it; null: none
  };
  const Case cases[] = {
      {"", {}, nullptr},
      {" \t ", {}, nullptr},
      {"ls  -l\t/a ", {"ls", "-l", "/a"}, nullptr},
      {R"(ls "a b" 'c  d' e\ f)", {"ls", "a b", "c  d", "e f"}, nullptr},
      {R"(a"b c"'d'\"e)", {R"(ab cd"e)"}, nullptr},
      {R"('' "")", {"", ""}, nullptr},
      {R"('a\' "\"\\\n" \\)", {R"(a\)", R"("\\n)", R"(\)"}, nullptr},
      {"ls # all of it", {"ls"}, nullptr},
      {R"(a#b \#c '#d' #)", {"a#b", "#c", "#d"}, nullptr},
      {R"(~ ~/x ~ada a~ '~' \~/x "~"/x)",
       {"/home/ada", "/home/ada/x", "~ada", "a~", "~", "~/x", "~/x"},
       nullptr},
      {"* $HOME ; |", {"*", "$HOME", ";", "|"}, nullptr},
      {"\xC3\xA4 \xFF", {"\xC3\xA4", "\xFF"}, nullptr},
      {"ls 'a b", {}, "single quote"},
      {R"(ls "a \")", {}, "double quote"},
      {R"(ls a\)", {}, "backslash"},
      {R"(ls "a\)", {}, "backslash"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    NSErrorRef error;
    const auto words = splitLine(c.line, &error);
    EXPECT_EQ(words.has_value(), c.error == nullptr);
    EXPECT_EQ(words.value_or(Words{}), c.words);
    if (c.error && error) {
      EXPECT_NE(error->localizedDescription().find(c.error), std::string::npos);
    }
  }
}

TEST(ShellWords, WhatIsQuotedReadsAsItself) {
  for (const std::string text : {"", "a b", "~", "~/x", "#x", R"(a'b"c\d)", "\t", "a#~", "\xC3\xA4 \\"}) {
    SCOPED_TRACE(text);
    const Words expected{"ls", text, "z"};
    EXPECT_EQ(splitLine("ls " + quoted(text, Quote::none) + " z", nullptr), expected);
    EXPECT_EQ(splitLine("ls '" + quoted(text, Quote::single) + "' z", nullptr), expected);
    EXPECT_EQ(splitLine("ls \"" + quoted(text, Quote::doubled) + "\" z", nullptr), expected);
  }
}

/// The shapes of arguments that verbs declare, read from the real ones.
std::vector<VerbSyntax> syntaxes() {
  std::vector<VerbSyntax> all;
  for (const auto& verb : allVerbs()) all.push_back(syntaxOf(*verb));
  return all;
}

std::vector<CompletionName> namesOf(ArgumentKind kind, const std::string& folder) {
  if (kind == ArgumentKind::verb) return {{"ls"}, {"link"}, {"put"}, {"unlink"}};
  if (kind == ArgumentKind::account) return {{"u1"}, {"Ada L"}};
  if (kind == ArgumentKind::localPath) {
    if (folder == "/home/ada/") return {{"Pictures", true}, {"a file"}};
    return {{"local file"}, {".hidden"}};
  }
  if (folder == "/Docs/") return {{"a b"}, {"a c"}, {"it's"}};
  return {{"Docs", true},
          {"docx"},
          {"\xC3\xA4"
           "1"},
          {"\xC3\xA4"
           "2"},
          {"#1"},
          {"bad\nname"},
          {"Photos", true},
          {"\xC3\xB6"}};
}

TEST(ShellWords, CompletionFitsThePlaceAndTheQuote) {
  ::setenv("HOME", "/home/ada", 1);
  struct Case {
    const char* line;
    const char* completed;  // the whole line; null: nothing fits
    Words choices;
  };
  const Case cases[] = {
      {"p", "put ", {}},
      {"kzv p", "kzv put ", {}},
      {"--json p", "--json put ", {}},
      {"l", "l", {"link", "ls"}},
      {"ls -", "ls -", {"--account", "--help", "--json", "-R", "-h", "-l"}},
      {"ls --j", "ls --json ", {}},
      {"ls -- -", nullptr, {}},
      {"ls P", "ls Photos/", {}},
      {"ls p", "ls Photos/", {}},  // letter case only where nothing else fits
      {"ls d", "ls docx ", {}},
      {"ls -l /a D", "ls -l /a Docs/", {}},
      {"ls /Docs/a", "ls /Docs/a\\ ", {}},
      {"ls /Docs/a\\ ", "ls /Docs/a\\ ", {"a b", "a c"}},
      {"ls /Docs/i", "ls /Docs/it\\'s ", {}},
      {"ls '/Docs/i", "ls '/Docs/it'\\''s' ", {}},
      {"ls \"/Docs/a b", "ls \"/Docs/a b\" ", {}},
      {"ls 'D", "ls 'Docs/", {}},
      {"ls \xC3\xA4",
       "ls \xC3\xA4",
       {"\xC3\xA4"
        "1",
        "\xC3\xA4"
        "2"}},
      {"ls \\#", "ls \\#1 ", {}},
      {"ls bad", nullptr, {}},
      {"ls x # P", nullptr, {}},
      {"--account u1 ls P", nullptr, {}},  // the names at hand are another account's
      {"ls --account A", "ls --account Ada\\ L ", {}},
      {"get P", "get Photos/", {}},
      {"get x l", "get x local\\ file ", {}},
      {"get x ~", "get x ~/", {}},
      {"get x ~/a", "get x ~/a\\ file ", {}},
      {"get x y z", nullptr, {}},
      {"put .", "put .hidden ", {}},
      {"put x P", "put x Photos/", {}},
      {"icon P", "icon Photos/", {}},
      {"icon x --out l", "icon x --out local\\ file ", {}},
      {"unlink u", "unlink u1 ", {}},
      {"df P", nullptr, {}},
      {"nope P", nullptr, {}},
  };
  const auto verbs = syntaxes();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const auto completion = complete(c.line, verbs, shellLineSyntax(), namesOf);
    EXPECT_EQ(completion.has_value(), c.completed != nullptr);
    if (!completion || !c.completed) continue;
    EXPECT_EQ(std::string(c.line).substr(0, completion->start) + completion->replacement, c.completed);
    EXPECT_EQ(completion->choices, c.choices);
  }
}

}  // namespace

}  // namespace kzv::cli
