#include <string>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "kzv/CommandLine.h"

namespace kzv::cli {

namespace {

using Arguments = std::vector<std::string>;

/// Two verbs with the shapes of arguments that the real ones have.
class ManyPaths final : public Verb {
 public:
  Arguments paths;
  Words words() const override { return {"many", "Takes paths", "  kzv many /a"}; }
  void declare(VerbArguments& arguments) override { arguments.values("PATH", paths, "Paths"); }
  void run(VerbContext& /*context*/) override {}
};
class TwoPaths final : public Verb {
 public:
  std::string from;
  std::string to;
  Words words() const override { return {"two", "Takes two paths", "  kzv two /a /b"}; }
  void declare(VerbArguments& arguments) override {
    arguments.value("FROM", from, "Source").required();
    arguments.value("TO", to, "Target").required();
  }
  void run(VerbContext& /*context*/) override {}
};

class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() {
    verbs.push_back(std::make_unique<ManyPaths>());
    verbs.push_back(std::make_unique<TwoPaths>());
  }
  std::vector<std::unique_ptr<Verb>> verbs;
  const ManyPaths& many() const { return static_cast<const ManyPaths&>(*verbs[0]); }
  const TwoPaths& two() const { return static_cast<const TwoPaths&>(*verbs[1]); }
};

TEST_F(CommandLineTest, FileNamesOfAnyShapeArriveAsTheyAre) {
  const Arguments shapes[] = {{},
                              {"/a", "b c"},
                              {"[a,b]", "[]"},
                              {"a,b", "\"q\"", "'"},
                              {"two", "many"},
                              {"a=b"},
                              {"%i{}"},
                              {"\x02[a", "\x02"},
                              {""}};
  for (const Arguments& paths : shapes) {
    SCOPED_TRACE(testing::PrintToString(paths));
    Arguments words{"many"};
    words.insert(words.end(), paths.begin(), paths.end());
    const auto parsed = parseCommandLine(words, verbs);
    ASSERT_TRUE(std::holds_alternative<Command>(parsed)) << std::get<Answer>(parsed).text;
    EXPECT_EQ(many().paths, paths);
  }
  ASSERT_TRUE(std::holds_alternative<Command>(parseCommandLine({"many", "--", "-l", "--json"}, verbs)));
  EXPECT_EQ(many().paths, (Arguments{"-l", "--json"}));
}

TEST_F(CommandLineTest, GlobalOptionsMayStandBeforeAndBehindTheVerb) {
  const auto parsed = parseCommandLine(
      {"--account", "Ada", "--home=/h", "two", "--json", "[x]", "/b", "--service", "http://127.0.0.1:1"},
      verbs);
  ASSERT_TRUE(std::holds_alternative<Command>(parsed)) << std::get<Answer>(parsed).text;
  const auto& [options, verb] = std::get<Command>(parsed);
  EXPECT_EQ(verb, &two());
  EXPECT_EQ(options.account, "Ada");
  EXPECT_EQ(options.home, "/h");
  EXPECT_EQ(options.service, "http://127.0.0.1:1");
  EXPECT_TRUE(options.json);
  EXPECT_FALSE(options.quiet);
  EXPECT_EQ(two().from, "[x]");
  EXPECT_EQ(two().to, "/b");
}

TEST_F(CommandLineTest, WrongUsageIsOneLineThatNamesTheMistake) {
  struct Case {
    const char* name;
    Arguments arguments;
    const char* part;
  };
  const Case cases[] = {
      {"no verb", {}, "kzv: no verb given; see kzv --help"},
      {"unknown verb", {"fly", "/a"}, "kzv: no verb \"fly\"; see kzv --help"},
      {"unknown global option", {"--fly", "many"}, "--fly"},
      {"unknown option of a verb", {"many", "--fly"}, "kzv: many: "},
      {"missing argument", {"two", "/a"}, "kzv: two: TO is required; see kzv two --help"},
      {"too many arguments", {"two", "a", "b", "c"}, "kzv: two: "},
      {"service is no address", {"--service", "localhost", "many"}, "must begin with http:// or https://"},
      {"quiet and verbose", {"--quiet", "--verbose", "many"}, "--verbose"},
      {"control characters are shown harmless", {"fl\x1by"}, "fl\\x1by"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto parsed = parseCommandLine(c.arguments, verbs);
    ASSERT_TRUE(std::holds_alternative<Answer>(parsed));
    const Answer& answer = std::get<Answer>(parsed);
    EXPECT_EQ(answer.status, ExitStatus::usage);
    EXPECT_NE(answer.text.find(c.part), std::string::npos) << answer.text;
    EXPECT_EQ(answer.text.find('\n'), std::string::npos) << answer.text;
  }
}

TEST_F(CommandLineTest, HelpNamesEveryVerbAndGivesExamples) {
  const auto textOfHelp = [&](const Arguments& arguments) {
    const auto parsed = parseCommandLine(arguments, verbs);
    const auto* answer = std::get_if<Answer>(&parsed);
    EXPECT_TRUE(answer && answer->status == ExitStatus::done);
    return answer ? answer->text : std::string();
  };
  const std::string all = textOfHelp({"--help"});
  EXPECT_NE(all.find("many"), std::string::npos);
  for (const char* variable : {"KZV_SERVICE_URL", "KZV_HOME", "KZV_APP_KEY", "KZV_LONG_POLL"})
    EXPECT_NE(all.find(variable), std::string::npos) << variable;
  EXPECT_NE(textOfHelp({"two", "--help"}).find("kzv two /a /b"), std::string::npos);
  EXPECT_EQ(textOfHelp({"--version"}).substr(0, 4), "kzv ");
}

}  // namespace

}  // namespace kzv::cli
