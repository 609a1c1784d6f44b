#include <atomic>
#include <future>

#include <gtest/gtest.h>

#include "foundation/NSDictionary.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "json/JSONRepresentation.h"
#include "json/JSONValue.h"
#include "json/JsonTestText.h"
#include "json/QJJsonParser.h"

using namespace std::string_literals;

namespace {

const std::string inArray = "3 Expected value while parsing array";
const std::string inKeyA = "3 Object value expected for key: a";
const std::string badKey = "3 Object key string expected";
const std::string broken = "6 Broken unicode character";
const std::string noLead = "3 Unrecognised leading character";
const std::string noQuad = "6 Missing hex digit in quad";
const std::string noText = "11 Unexpected end of string";

TEST(Reader, RefusesWithTheWholeChainOfErrors) {
  const struct {
    std::string text;
    Chain errors;  // innermost first
  } cases[] = {{"[+1]", {"2 Leading + disallowed in number", inArray}},
               {"[-00]", {"2 Leading 0 disallowed in number", inArray}},
               {"[-]", {"2 No digits after initial minus", inArray}},
               {"[1.e3]", {"2 No digits after decimal point", inArray}},
               {"[1E+]", {"2 No digits after exponent", inArray}},
               {"[1e200]", {"2 Failed creating decimal instance", inArray}},
               {"[1,,2]", {noLead, inArray}},
               {"[truE]", {"3 Expected 'true'", inArray}},
               {R"({"a":nul})", {"3 Expected 'null'", inKeyA}},
               {"{1:2}", {badKey}},
               {R"({"a" 1})", {"3 Expected ':' separating key and value"}},
               {R"({"a":)", {noText, inKeyA}},
               {" null ", {"4 Valid fragment, but not JSON"}},
               {"[\"\t\"]", {"5 Unescaped control character '0x9'", inArray}},
               {R"(["\u12"])", {noQuad, "6 Missing hex quad", broken, inArray}},
               {R"(["\ud800\n"])", {"6 Missing low character in surrogate pair", broken, inArray}},
               {R"(["\ud800\udfff"])", {"6 Invalid low surrogate char", broken, inArray}},
               {R"({"\udfff":1})", {"6 Invalid high character in surrogate pair", broken, badKey}},
               {"[\"\\\xC3\xA9\"]", {"8 Illegal escape sequence '0xc3'", inArray}},
               {"[1, ]", {"9 Trailing comma disallowed in array"}},
               {R"({"a":[{"b":1,}]})", {"9 Trailing comma disallowed in object", inArray, inKeyA}},
               {"[1] x", {"10 Garbage after JSON"}},
               {" \t\n\v\f\r", {noText}},
               {"[", {"11 End of input while parsing array"}},
               {"[ ", {noText, inArray}},
               {R"({"a":1 )", {"11 End of input while parsing object"}},
               {"{\"a", {"11 Unexpected EOF while parsing string", badKey}},
               // Bytes that are no text
               {"[1]\0"s, {"10 Garbage after JSON"}},
               {"[1\0]"s, {"11 End of input while parsing array"}},
               {"[\"a\0b\"]"s, {"11 Unexpected EOF while parsing string", inArray}},
               {"\xEF\xBB\xBF[]", {noLead}},
               {"[\xC2\xA0]", {noLead, inArray}},
               {"[\"\xC3\"]", {broken, inArray}},
               {"[\"\xED\xA0\x80\xED\xB0\x80\"]", {broken, inArray}},
               {"[\"\\n\xFF\"]", {broken, inArray}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    QJJsonParser parser;
    NSErrorRef error;
    EXPECT_FALSE(parser.objectWithString(c.text, &error));
    EXPECT_EQ(chainOf(parser), c.errors);
    EXPECT_EQ(id(error), parser.errorTrace()->items().back());
    EXPECT_TRUE(parser.objectWithString("[1]") && !parser.errorTrace()) << "it is reusable";
  }
}

TEST(Reader, NothingIsNoText) {
  for (const id& text : {id(), id(NSNumber::withInt(1))}) {
    QJJsonParser parser;
    EXPECT_FALSE(parser.objectWithString(text));
    EXPECT_EQ(chainOf(parser), Chain{"12 Input was 'nil'"});
  }
}

TEST(Reader, AcceptsWhatItShould) {
  const struct {
    const char* name;
    std::string text, written;
  } cases[] = {
      {"no commas, all white space", "[1\v2\"a\"{\"b\":3\f\"c\":4}null[]true\rfalse]",
       R"([1,2,"a",{"b":3,"c":4},null,[],true,false])"},
      {"later key replaces, in its place", R"({"a":1,"b":2,"\u0061":3})", R"({"a":3,"b":2})"},
      {"minus zero", "[-0,-0.0]", "[0,0]"},
      {"exponents", "[1e3,1E-3,12.5e+1]", "[1000,0.001,125]"},
      {"escapes", R"(["\"\\\/\b\f\n\r\t\u0041\u00e9\u20AC"])", "[\"\\\"\\\\/\\b\\f\\n\\r\\tAé€\"]"},
      {"pair becomes one unit", R"(["\ud83d\ude00"])", "[\"\xEF\x98\x80\"]"},
      {"pair becomes NUL", R"(["\ud800\udc00"])", R"(["\u0000"])"},
      {"pair becomes half of one", R"(["\ud836\udc00"])", "[\"\xED\xA0\x80\"]"},
      {"two halves in a row are one character", R"(["\ud836\udc00\ud837\udc00"])", "[\"\xF0\x90\x80\x80\"]"},
      {"raw characters", "[\"\x7F\U0001F600\xED\xB0\x80\xED\xA0\x80\"]",
       "[\"\x7F\U0001F600\xED\xB0\x80\xED\xA0\x80\"]"}};
  for (const auto& c : cases) EXPECT_EQ(JSONRepresentation(JSONValue(c.text)), c.written) << c.name;
}

TEST(Reader, NumbersThatFitAreIntegers) {
  using Origin = NSNumber::Origin;
  const struct {
    std::string text;
    Origin origin;
  } cases[] = {{"9223372036854775807", Origin::integer},
               {"9223372036854775808", Origin::decimal},
               {"-9223372036854775807", Origin::integer},
               {"-9223372036854775808", Origin::decimal},
               {"-0.5", Origin::decimal}};
  for (const auto& c : cases) {
    const auto number = as<NSNumber>(as<NSArray>(JSONValue("[" + c.text + "]"))->items()[0]);
    EXPECT_EQ(number->origin(), c.origin) << c.text;
    EXPECT_EQ(number->stringValue(), c.text);
  }
}

TEST(Reader, NestingIsBoundedByMaxDepthAndCostsNoStack) {
  const auto levelsWithin = [](std::size_t maxDepth, std::size_t levels, std::string_view opening) {
    QJJsonParser parser;
    if (maxDepth != 512) parser.setMaxDepth(maxDepth);
    parser.objectWithString(repeated(std::string(opening), levels));
    return chainOf(parser);
  };
  EXPECT_EQ(levelsWithin(512, 512, "[").front(), "11 End of input while parsing array");
  EXPECT_EQ(levelsWithin(512, 513, "[").front(), "7 Nested too deep");
  EXPECT_EQ(levelsWithin(2, 3, "["), (Chain{"7 Nested too deep", inArray, inArray}));
  EXPECT_EQ(levelsWithin(0, 100'000, "[").size(), 100'000U);
  EXPECT_EQ(levelsWithin(0, 100'000, R"({"a":)").size(), 100'001U);
  EXPECT_TRUE(JSONValue("[" + repeated("[[]{}]", 600) + "]")) << "siblings do not add up";
}

// Its memory is shared with other values: it must survive them, the parser and the text.
TEST(Reader, AValueOutlivesTheOthers) {
  id kept;
  {
    std::string text =
        R"({"list":[)" + repeated(R"("a string of more than fifteen bytes",1000,)", 3000) + "7]}";
    const id whole = QJJsonParser().objectWithString(text);
    text.assign(text.size(), 'x');
    kept = as<NSArray>(as<NSDictionary>(whole)->objectForKey("list"))->items()[2998];
  }
  EXPECT_EQ(*textOf(kept), "a string of more than fifteen bytes");
}

TEST(ErrorTrace, ObserversAreNotifiedBeforeAndAfterEachChangeAndMayRemoveEachOther) {
  QJJsonParser parser;
  std::vector<std::string> seen;
  std::size_t second = 0;
  const auto note = [&](const char* moment) {
    return [&, moment] { seen.push_back(moment + std::to_string(chainOf(parser).size())); };
  };
  const auto first = parser.addErrorTraceObserver(note("will "), note("did "));
  parser.objectWithString("[?]");
  EXPECT_EQ(seen, (std::vector<std::string>{"will 0", "did 0", "will 0", "did 1", "will 1", "did 2"}));
  seen.clear();
  parser.addErrorTraceObserver([&] { parser.removeErrorTraceObserver(second); }, nullptr);
  second = parser.addErrorTraceObserver(note("removed "), nullptr);
  parser.clearErrorTrace();
  EXPECT_EQ(seen, (std::vector<std::string>{"will 2", "did 0"}));
  parser.removeErrorTraceObserver(first);
  parser.objectWithString("[");
  EXPECT_EQ(seen.size(), 2U);
}

TEST(ErrorTrace, IsASnapshotForAnyThread) {
  QJJsonParser parser;
  std::atomic<bool> isDone = false;
  auto reader = std::async(std::launch::async, [&] {
    std::size_t most = 0;
    while (!isDone) most = std::max(most, chainOf(parser).size());
    return most;
  });
  for (int pass = 0; pass < 200; ++pass) parser.objectWithString(repeated("[", 50));
  const auto before = parser.errorTrace();
  parser.addErrorWithCode(QJJsonErrorCode::fragment, "one more");
  isDone = true;
  EXPECT_LE(reader.get(), 51U);
  EXPECT_EQ(before->items().size() + 1, chainOf(parser).size());
}

TEST(ErrorTrace, TheOneCallFormsLogItOnFailureOnly) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(JSONRepresentation(JSONValue(R"([ "a" ])")), R"(["a"])");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(JSONValue("[01]") || JSONRepresentation(str("a")));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("-JSONValue failed. Error trace is: ("), std::string::npos) << log;
  EXPECT_NE(log.find("-JSONRepresentation failed. Error trace is: ("), std::string::npos) << log;
}

}  // namespace
