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

/// Replaced by `value` in JSON.
struct Proxied : NSObject, QJJsonProxying {
  explicit Proxied(id replacement) : value(std::move(replacement)) {}
  id proxyForJson() const override { return value; }
  id value;
};
id proxied(id value) { return std::make_shared<Proxied>(std::move(value)); }

TEST(Writer, WritesEachKindInItsForm) {
  enum Layout { compact, readable, sorted };
  const NSDictionary::Entries unordered{
      {str("b"), integer(1)},
      {str("\xC3\xA9"), integer(2)},
      {str("B"), dictionary({{str("d"), integer(1)}, {str("c"), integer(2)}})},
      {str("e\xCC\x81x"), integer(4)}};
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  const struct {
    const char* name;
    id value;
    std::string text;
    Layout layout = compact;
  } cases[] = {
      {"compact", dictionary({{str("a"), oneAndTwo}}), R"({"a":[1,2]})"},
      {"readable", dictionary({{str("a"), oneAndTwo}}), "{\n  \"a\" : [\n    1,\n    2\n  ]\n}", readable},
      {"empty in readable layout", array({array({}), dictionary({})}), "[\n  [],\n  {}\n]", readable},
      {"order of the dictionary", dictionary(unordered),
       "{\"b\":1,\"é\":2,\"B\":{\"d\":1,\"c\":2},\"e\xCC\x81x\":4}"},
      {"sorted at each level by UTF-16 unit, composed as decomposed", dictionary(unordered),
       "{\"B\":{\"c\":2,\"d\":1},\"b\":1,\"é\":2,\"e\xCC\x81x\":4}", sorted},
      {"booleans, bytes and null",
       array({NSNumber::withBool(true), NSNumber::withChar(65), NSNumber::withChar(0), NSNull::null()}),
       "[true,true,false,null]"},
      {"numbers",
       array({integer(1), integer(-most - 1), real(0.1), real(1e21), NSDecimalNumber::fromString("1e3")}),
       "[1,-9223372036854775808,0.1,1e+21,1000]"},
      {"escapes", dictionary({{str("\"\\/\b\t\n\f\r"), str(std::string("\0\x0B\x1F", 3))}}),
       R"({"\"\\/\b\t\n\f\r":"\u0000\u000b\u001f"})"},
      {"bytes that are no UTF-8 stay", array({str("\x7F\xFF\xED\xA0\x80")}), "[\"\x7F\xFF\xED\xA0\x80\"]"},
      {"outermost proxy", proxied(proxied(oneAndTwo)), "[1,2]"},
      {"proxies inside", array({proxied(str("p")), proxied(proxied(array({integer(1)})))}),
       "[\n  \"p\",\n  [\n    1\n  ]\n]", readable}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    QJJsonWriter writer;
    writer.setHumanReadable(c.layout == readable);
    writer.setSortKeys(c.layout == sorted);
    EXPECT_EQ(writer.stringWithObject(c.value).value_or(testing::PrintToString(chainOf(writer))), c.text);
    EXPECT_FALSE(writer.errorTrace());
    EXPECT_EQ(writer.indent(), "\n");
  }
}

TEST(Writer, RefusesWithTheWholeChainOfErrors) {
  const std::string nan = "1 NaN is not a valid number in JSON";
  const std::string infinite = "1 Infinity is not a valid number in JSON";
  const std::string top = "4 Not valid type for JSON";
  const std::string inKeyA = "1 Unsupported value for key a in object";
  const std::string badKey = "1 JSON object key must be string";
  id deep = array({});
  for (int level = 1; level < 513; ++level) deep = array({deep});
  const struct {
    const char* name;
    id value;
    Chain errors;  // innermost first
  } cases[] = {{"nothing", nullptr, {top}},
               {"proxy of nothing", proxied(nullptr), {top, top}},
               {"proxy of what fails", proxied(array({real(NAN)})), {nan, top, top}},
               {"decimal", array({NSDecimalNumber::notANumber()}), {nan, top}},
               {"infinity", array({real(-std::numeric_limits<double>::infinity())}), {infinite, top}},
               {"no form and no proxy",
                array({std::make_shared<NSDate>(NSDate::Time())}),
                {"1 JSON serialisation not supported for NSDate", top}},
               {"number as key",
                dictionary({{str("a"), dictionary({{integer(1), integer(2)}})}}),
                {badKey, inKeyA, top}},
               {"value in objects",
                dictionary({{str("a"), array({dictionary({{str("a"), real(NAN)}})})}}),
                {nan, inKeyA, inKeyA, top}},
               {"nested too deep", deep, {"7 Nested too deep", top}}};
  for (const auto& c : cases) {
    for (const bool isSorted : {false, true}) {
      SCOPED_TRACE(c.name);
      QJJsonWriter writer;
      writer.setSortKeys(isSorted);
      NSErrorRef error;
      EXPECT_EQ(writer.stringWithObject(c.value, &error), std::nullopt);
      EXPECT_EQ(chainOf(writer), c.errors);
      EXPECT_EQ(id(error), writer.errorTrace()->items().back());
      EXPECT_EQ(writer.stringWithObject(array({oneAndTwo})), "[[1,2]]") << "it is reusable";
      EXPECT_FALSE(writer.errorTrace());
    }
  }
}

TEST(Writer, AFailingProxyCostsOnlyItsOwnPlace) {
  const id odd = proxied(dictionary({{str("a"), array({integer(1), real(NAN), integer(2)})}}));
  QJJsonWriter writer;
  EXPECT_EQ(writer.stringWithObject(array({odd, str("x"), proxied(nullptr)})), R"([{"a":[1,,"x",])");
  EXPECT_EQ(chainOf(writer),
            (Chain{"1 NaN is not a valid number in JSON", "1 Unsupported value for key a in object",
                   "1 JSON serialisation not supported for (null)"}));
  // The values left open by the failure count no more, neither for the layout nor for the depth.
  writer.setHumanReadable(true);
  EXPECT_EQ(writer.stringWithObject(array({proxied(array({real(NAN)})), oneAndTwo})),
            "[\n  [\n    ,\n  [\n    1,\n    2\n  ]\n]");
  writer.setHumanReadable(false);
  const auto self = std::make_shared<Proxied>(nullptr);
  self->value = self;
  EXPECT_EQ(writer.stringWithObject(array({self, integer(1)})), "[,1]");
  EXPECT_EQ(chainOf(writer), Chain{"7 Nested too deep"});
  EXPECT_EQ(writer.stringWithObject(self), std::nullopt);
  self->value = nullptr;
}

TEST(Writer, LargeAndDeepTextsCostWhatTheyTake) {
  QJJsonParser parser;
  parser.setMaxDepth(0);
  QJJsonWriter writer;
  writer.setMaxDepth(0);
  const std::string longFirst = "[\"" + std::string(65'536, 'x') + "\"" + repeated(",1", 3000) + "]";
  for (const std::string& text : {repeated("[", 100'000) + repeated("]", 100'000), longFirst}) {
    const auto written = writer.stringWithObject(parser.objectWithString(text));
    EXPECT_TRUE(written == text);
    EXPECT_LE(written->capacity(), 3 * text.size());
  }
}

TEST(Writer, TheWritersOfEachKindAppend) {
  QJJsonWriter writer;
  std::string text = "x";
  EXPECT_TRUE(writer.appendValue(integer(7), text));
  EXPECT_TRUE(writer.appendArray(*as<NSArray>(oneAndTwo), text));
  EXPECT_TRUE(writer.appendDictionary(NSDictionary({{str("a"), NSNull::null()}}), text));
  EXPECT_TRUE(writer.appendString(NSString("s"), text));
  EXPECT_FALSE(writer.appendValue(array({integer(1), real(NAN)}), text));
  EXPECT_EQ(text, R"(x7[1,2]{"a":null}"s"[1,)");
  EXPECT_EQ(chainOf(writer).size(), 1U);
}

}  // namespace
