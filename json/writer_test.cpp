#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "foundation/NSDate.h"
#include "foundation/NSDecimalNumber.h"
#include "foundation/NSNull.h"
#include "json/JsonTestText.h"
#include "json/QJJsonParser.h"
#include "json/QJJsonProxying.h"
#include "json/QJJsonWriter.h"

namespace {

id array(std::vector<id> items) { return std::make_shared<NSArray>(std::move(items)); }
id dictionary(NSDictionary::Entries entries) { return std::make_shared<NSDictionary>(std::move(entries)); }
id integer(std::int64_t value) { return NSNumber::withInt(value); }
id real(double value) { return NSNumber::withDouble(value); }
const id oneAndTwo = array({integer(1), integer(2)});

/// Stands for `value` in JSON.
class Proxied : public NSObject, public QJJsonProxying {
 public:
  explicit Proxied(id value) : value_(std::move(value)) {}
  id proxyForJson() const override { return value_; }
  void setValue(id value) { value_ = std::move(value); }

 private:
  id value_;
};
id proxied(id value) { return std::make_shared<Proxied>(std::move(value)); }

struct Written {
  const char* name;
  id value;
  std::string text;
  bool isReadable = false;
  bool isSorted = false;
};

TEST(Writer, WritesEachKindInItsForm) {
  constexpr bool readable = true, sorted = true;
  const NSDictionary::Entries unordered{{str("b"), integer(1)},
                                        {str("\xC3\xA9"), integer(2)},
                                        {str("B"), integer(3)},
                                        {str("a"), array({})},
                                        {str("e\xCC\x81x"), integer(4)}};
  const Written rows[] = {
      {"empty object", dictionary({}), "{}"},
      {"empty in readable layout", array({array({}), dictionary({})}), "[\n  [],\n  {}\n]", readable},
      {"compact", dictionary({{str("a"), oneAndTwo}}), R"({"a":[1,2]})"},
      {"readable", dictionary({{str("a"), oneAndTwo}}), "{\n  \"a\" : [\n    1,\n    2\n  ]\n}", readable},
      {"members in readable layout", dictionary({{str("a"), integer(1)}, {str("b"), dictionary({})}}),
       "{\n  \"a\" : 1,\n  \"b\" : {}\n}", readable},
      {"order of the dictionary", dictionary(unordered),
       "{\"b\":1,\"\xC3\xA9\":2,\"B\":3,\"a\":[],\"e\xCC\x81x\":4}"},
      {"sorted by code unit, composed as decomposed", dictionary(unordered),
       "{\"B\":3,\"a\":[],\"b\":1,\"\xC3\xA9\":2,\"e\xCC\x81x\":4}", !readable, sorted},
      {"sorted at each level",
       array({dictionary({{str("b"), dictionary({{str("d"), integer(1)}, {str("c"), integer(2)}})},
                          {str("a"), integer(3)}})}),
       R"([{"a":3,"b":{"c":2,"d":1}}])", !readable, sorted},
      {"booleans and bytes",
       array({NSNumber::withBool(true), NSNumber::withBool(false), NSNumber::withChar(65),
              NSNumber::withChar(0), integer(1), integer(0)}),
       "[true,false,true,false,1,0]"},
      {"integers",
       array({integer(std::numeric_limits<std::int64_t>::max()),
              integer(std::numeric_limits<std::int64_t>::min()), integer(-1)}),
       "[9223372036854775807,-9223372036854775808,-1]"},
      {"reals", array({real(0.1), real(1), real(-2.5), real(1e21), real(1e-7), NSNumber::withFloat(0.1F)}),
       "[0.1,1,-2.5,1e+21,1e-07,0.1]"},
      {"decimals",
       array({NSDecimalNumber::fromString("1e3"), NSDecimalNumber::fromString("-0.00120"),
              NSDecimalNumber::fromString("12345678901234567890123456789012345678"),
              NSDecimalNumber::fromString("-0")}),
       "[1000,-0.0012,12345678901234567890123456789012345678,0]"},
      {"null", array({NSNull::null()}), "[null]"},
      {"escapes", array({str("\"\\/\b\t\n\f\r")}), R"(["\"\\/\b\t\n\f\r"])"},
      {"control characters", array({str(std::string("\0\x01\x0B\x1F", 4))}),
       R"(["\u0000\u0001\u000b\u001f"])"},
      {"plain", array({str("\x7F\xC3\xA9\xED\xA0\x80\xF0\x9F\x98\x80 and some more of it")}),
       "[\"\x7F\xC3\xA9\xED\xA0\x80\xF0\x9F\x98\x80 and some more of it\"]"},
      {"escapes in a key", dictionary({{str("a\"b"), str("")}}), R"({"a\"b":""})"},
      {"proxy", array({proxied(str("p")), proxied(proxied(oneAndTwo))}), R"(["p",[1,2]])"},
      {"outermost proxy", proxied(proxied(oneAndTwo)), "[1,2]"},
      {"proxy in readable layout", array({proxied(oneAndTwo)}), "[\n  [\n    1,\n    2\n  ]\n]", readable}};
  for (const Written& row : rows) {
    SCOPED_TRACE(row.name);
    QJJsonWriter writer;
    writer.setHumanReadable(row.isReadable);
    writer.setSortKeys(row.isSorted);
    NSErrorRef error;
    EXPECT_EQ(writer.stringWithObject(row.value, &error).value_or(testing::PrintToString(chainOf(writer))),
              row.text);
    EXPECT_FALSE(error);
    EXPECT_EQ(writer.indent(), "\n");
  }
}

TEST(Writer, RefusesWithTheWholeChainOfErrors) {
  struct Unwritable {
    const char* name;
    id value;
    Chain errors;  // innermost first
  };
  const std::string nan = "1 NaN is not a valid number in JSON";
  const std::string infinite = "1 Infinity is not a valid number in JSON";
  const std::string top = "4 Not valid type for JSON";
  const std::string inKeyA = "1 Unsupported value for key a in object";
  id deep = array({});
  for (int level = 1; level < 513; ++level) deep = array({deep});
  const Unwritable rows[] = {
      {"nothing", nullptr, {top}},
      {"string", str("a"), {top}},
      {"number", integer(1), {top}},
      {"null", NSNull::null(), {top}},
      {"proxy of a string", proxied(str("a")), {top, top}},
      {"proxy of nothing", proxied(nullptr), {top, top}},
      {"proxy of what fails", proxied(array({real(NAN)})), {nan, top, top}},
      {"real", array({real(NAN)}), {nan, top}},
      {"decimal", array({NSDecimalNumber::notANumber()}), {nan, top}},
      {"infinity", array({real(INFINITY)}), {infinite, top}},
      {"infinite float", array({NSNumber::withFloat(-INFINITY)}), {infinite, top}},
      {"no form and no proxy",
       array({std::make_shared<NSDate>(NSDate::Time())}),
       {"1 JSON serialisation not supported for NSDate", top}},
      {"number as key", dictionary({{integer(1), integer(2)}}), {"1 JSON object key must be string", top}},
      {"number as key inside",
       dictionary({{str("a"), dictionary({{integer(1), integer(2)}})}}),
       {"1 JSON object key must be string", inKeyA, top}},
      {"value in objects",
       dictionary({{str("a"), array({dictionary({{str("b"), real(NAN)}})})}}),
       {nan, "1 Unsupported value for key b in object", inKeyA, top}},
      {"nested too deep", deep, {"7 Nested too deep", top}},
      {"nested too deep in an object",
       dictionary({{str("a"), as<NSArray>(deep)->items()[0]}}),
       {"7 Nested too deep", inKeyA, top}}};
  for (const Unwritable& row : rows) {
    for (const bool isSorted : {false, true}) {
      SCOPED_TRACE(row.name);
      QJJsonWriter writer;
      writer.setSortKeys(isSorted);
      NSErrorRef error;
      EXPECT_EQ(writer.stringWithObject(row.value, &error), std::nullopt);
      EXPECT_EQ(chainOf(writer), row.errors);
      ASSERT_TRUE(error);
      EXPECT_EQ(error->localizedDescription(), "Not valid type for JSON");
      EXPECT_EQ(writer.stringWithObject(array({oneAndTwo})), "[[1,2]]") << "it is reusable";
      EXPECT_FALSE(writer.errorTrace());
    }
  }
}

TEST(Writer, AFailingProxyCostsOnlyItsOwnPlace) {
  const id odd = proxied(dictionary({{str("a"), array({integer(1), real(NAN), integer(2)})}}));
  QJJsonWriter writer;
  EXPECT_EQ(writer.stringWithObject(array({odd, str("x")})), R"([{"a":[1,,"x"])");
  EXPECT_EQ(chainOf(writer),
            (Chain{"1 NaN is not a valid number in JSON", "1 Unsupported value for key a in object"}));
  EXPECT_EQ(writer.stringWithObject(array({proxied(nullptr)})), "[]");
  EXPECT_EQ(chainOf(writer), (Chain{"1 JSON serialisation not supported for (null)"}));
  // What the failure left open counts no more, neither for the layout nor for the bound.
  writer.setHumanReadable(true);
  EXPECT_EQ(writer.stringWithObject(array({proxied(array({real(NAN)})), oneAndTwo})),
            "[\n  [\n    ,\n  [\n    1,\n    2\n  ]\n]");
  EXPECT_TRUE(writer.stringWithObject(array(std::vector<id>(1000, odd))));
}

TEST(Writer, AProxyOfItselfEnds) {
  const auto self = std::make_shared<Proxied>(nullptr);
  self->setValue(self);
  QJJsonWriter writer;
  EXPECT_EQ(writer.stringWithObject(self), std::nullopt);
  EXPECT_EQ(chainOf(writer).front(), "7 Nested too deep");
  EXPECT_EQ(writer.stringWithObject(array({self, integer(1)})), "[,1]");
  EXPECT_EQ(chainOf(writer), Chain{"7 Nested too deep"});
  self->setValue(nullptr);
}

TEST(Writer, NestingWithoutLimitCostsNoStack) {
  const std::string text = repeated("[", 100'000) + repeated("]", 100'000);
  QJJsonParser parser;
  parser.setMaxDepth(0);
  QJJsonWriter writer;
  writer.setMaxDepth(0);
  EXPECT_EQ(writer.stringWithObject(parser.objectWithString(text)), text);
  writer.setHumanReadable(true);
  EXPECT_EQ(writer.stringWithObject(array({array({integer(1)})})), "[\n  [\n    1\n  ]\n]");
}

// The size of a large text is foreseen from its beginning: rightly, far too small, far too large, and beside
// one string that is longer than all room made so far.
TEST(Writer, LargeTextsAreWholeWhateverTheirBeginningLetsExpect) {
  const std::string longString(200'000, 'x');
  for (const char* item : {"1", "[\"a\",{\"b\":null}]"}) {
    for (const auto& first :
         {std::string("0"), '"' + longString + '"', '"' + longString.substr(0, 50'000) + "\\n\""}) {
      for (const auto& last : {std::string("0"), '"' + longString + '"'}) {
        const std::string text = "[" + first + "," + repeated(item + std::string(","), 100'000) + last + "]";
        EXPECT_TRUE(QJJsonWriter().stringWithObject(QJJsonParser().objectWithString(text)) == text);
      }
    }
  }
}

// Inside one text the writers of the single kinds go on where they are called, and add to the trace.
TEST(Writer, TheWritersOfEachKindAppend) {
  QJJsonWriter writer;
  std::string text = "x";
  EXPECT_TRUE(writer.appendValue(integer(7), text));
  EXPECT_TRUE(writer.appendArray(*as<NSArray>(oneAndTwo), text));
  EXPECT_TRUE(writer.appendDictionary(NSDictionary({{str("a"), NSNull::null()}}), text));
  EXPECT_TRUE(writer.appendString(NSString("s"), text));
  EXPECT_EQ(text, R"(x7[1,2]{"a":null}"s")");
  EXPECT_FALSE(writer.appendValue(array({integer(1), real(NAN)}), text));
  EXPECT_FALSE(writer.appendValue(real(NAN), text));
  EXPECT_EQ(text, R"(x7[1,2]{"a":null}"s"[1,)");
  EXPECT_EQ(chainOf(writer).size(), 2U);
}

TEST(RoundTrip, WhatWasWrittenReadsBackEqual) {
  const std::string text =
      R"({"n":[0,-1,9223372036854775807,-9223372036854775808,1.5,0.001,12345678901234567890],"s":["","a\"\\\u0001",)"
      "\"gr\xC3\xB6\xC3\x9F"
      R"("],"l":[true,false,null],"e":{"":{}},"d":[[[]]]})";
  const id value = QJJsonParser().objectWithString(text);
  for (const bool isReadable : {false, true}) {
    QJJsonWriter writer;
    writer.setHumanReadable(isReadable);
    const auto written = writer.stringWithObject(value);
    ASSERT_TRUE(written);
    if (!isReadable) {
      EXPECT_EQ(*written, text);
    }
    EXPECT_EQ(shown(QJJsonParser().objectWithString(*written)), shown(value));
  }
}

}  // namespace
