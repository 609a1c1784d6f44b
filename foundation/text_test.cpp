#include <functional>
#include <limits>
#include <optional>

#include <gtest/gtest.h>

#include "foundation/NSByteCountFormatter.h"
#include "foundation/NSDate.h"
#include "foundation/NSDecimalNumber.h"
#include "foundation/NSNumber.h"
#include "foundation/NSURL.h"
#include "foundation/Paths.h"
#include "foundation/Unicode.h"

using namespace std::string_literals;

namespace {

/// Most functions of this file: one text becomes another.
struct Row {
  const char* name;
  std::string in;
  std::string out;
};
void check(std::initializer_list<Row> rows, const std::function<std::string(const std::string&)>& function) {
  for (const Row& row : rows) EXPECT_EQ(function(row.in), row.out) << row.name;
}

}  // namespace

TEST(Paths, Components) {
  struct Case {
    const char *path, *last, *parent;
  };
  const Case cases[] = {{"/a/b", "b", "/a"}, {"/a/b/", "b", "/a"}, {"/a", "a", "/"},     {"/", "/", "/"},
                        {"", "", ""},        {"a", "a", ""},       {"a/b", "b", "a"},    {"/a//b", "b", "/a"},
                        {"///", "/", "/"},   {"//a", "a", "/"},    {"/a/..", "..", "/a"}};
  for (const Case& c : cases) {
    EXPECT_EQ(lastPathComponent(c.path), c.last) << c.path;
    EXPECT_EQ(deletingLastPathComponent(c.path), c.parent) << c.path;
  }
}

TEST(Paths, Appending) {
  struct Case {
    const char *path, *component, *joined;
  };
  const Case cases[] = {{"/a", "b", "/a/b"}, {"/a/", "/b", "/a/b"}, {"/", "a", "/a"},
                        {"", "a", "a"},      {"/a", "", "/a"},      {"//a//b", "c//d", "/a/b/c/d"}};
  for (const Case& c : cases) EXPECT_EQ(appendingPathComponent(c.path, c.component), c.joined) << c.joined;
}

TEST(Unicode, KeysAreMappedCharacterByCharacter) {
  check({{"ASCII", "/AZ/az", "/az/az"},
         {"Greek, final sigma", "\u039f\u0394\u039f\u03a3", "\u03bf\u03b4\u03bf\u03c3"},
         {"a typed final sigma is a character of its own", "\u03c2", "\u03c2"},
         {"dotted I", "\u0130", "i"},
         {"dotted I, decomposed", "I\u0307", "i"},
         {"decomposed", "U\u0308", "\u00fc"},
         {"beyond the basic plane", "\U00010400", "\U00010428"},
         {"bytes that are no UTF-8 stay", "A\xff\xc9", "a\xff\xc9"},
         {"half a surrogate pair stays", "A\xed\xa0\x80Z", "a\xed\xa0\x80z"}},
        caselessKey);
}

TEST(Unicode, CanonicalCompare) {
  struct Case {
    const char* name;
    std::string left;
    std::string right;
    int order;
  };
  const Case cases[] = {{"same", "a", "a", 0},
                        {"composed and decomposed", "caf\u00e9", "cafe\u0301", 0},
                        {"order of marks", "a\u0323\u0302", "a\u0302\u0323", 0},
                        {"case counts", "A", "a", -1},
                        {"code units, not code points", "\U00010400", "\uff5e", -1},
                        {"different bytes that are no UTF-8", "\xfe", "\xff", -1},
                        {"no UTF-8 is not the replacement character", "\ufffd", "\xff", -1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    EXPECT_EQ(sign(canonicalCompare(c.left, c.right)), c.order);
    EXPECT_EQ(sign(canonicalCompare(c.right, c.left)), -c.order);
  }
  EXPECT_EQ(canonicallyDecomposed("/\u00c5"), "/A\u030a");
}

TEST(Unicode, GeneralizedUtf8) {
  const std::string high = "\xed\xa0\x80";  // the halves of U+10000
  const std::string low = "\xed\xb0\x80";
  struct Case {
    std::string text;
    bool isValid;
    std::string joined;
  };
  const Case cases[] = {{"a\u00e9\U0001f600", true, "a\u00e9\U0001f600"},
                        {high, true, high},
                        {low + high, true, low + high},
                        {high + "x" + low, true, high + "x" + low},
                        {"x" + high + low, false, "x\U00010000"},
                        {high + high + low, false, high + "\U00010000"},
                        {high.substr(0, 2), false, high.substr(0, 2)},
                        {"\xc0\x80", false, "\xc0\x80"},
                        {"\xf4\x90\x80\x80", false, "\xf4\x90\x80\x80"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(isGeneralizedUtf8(c.text), c.isValid);
    std::string joined = c.text;
    joinSurrogateHalves(joined);
    EXPECT_EQ(joined, c.joined);
  }
}

TEST(Unicode, LengthsAndWholeCharacters) {
  EXPECT_EQ(utf16("a\u00e9\U0001f600\xff"), u"a\u00e9\U0001f600\ufffd");
  EXPECT_EQ(utf8Prefix("a\u00e9", 2), "a");
  EXPECT_EQ(utf8Prefix("a\u00e9", 3), "a\u00e9");
  EXPECT_EQ(withoutLastCharacter("a\U0001f600"), "a");
  EXPECT_EQ(withoutLastCharacter("\x80\x80"), "");
  EXPECT_EQ(withoutLastCharacter(""), "");
}

TEST(ByteCount, ForPeople) {
  struct Case {
    std::int64_t bytes;
    const char* text;
  };
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  const Case cases[] = {{0, "Zero KB"},
                        {1, "1 byte"},
                        {1'499, "1 KB"},
                        {1'500, "2 KB"},
                        {999'999, "1 MB"},
                        {1'235'000'000, "1.24 GB"},
                        {999'995'000'000, "1 TB"},
                        {-5'000, "-5 KB"},
                        {most, "9223.37 PB"},
                        {-most - 1, "-9223.37 PB"}};
  for (const Case& c : cases) EXPECT_EQ(stringFromByteCount(c.bytes), c.text) << c.bytes;
}

TEST(DecimalNumber, Text) {
  struct Case {
    const char* name;
    std::string text;
    std::optional<std::string> value;
  };
  const std::string digits38 = "12345678901234567890123456789012345678";
  const Case cases[] = {
      {"negative exponent", "1E-3", "0.001"},
      {"minus zero", "-0", "0"},
      {"zero with any exponent", "0e999999999999", "0"},
      {"38 digits", digits38, digits38},
      {"39 digits, half goes up", digits38 + "5", "123456789012345678901234567890123456790"},
      {"negative half goes away from zero", "-" + digits38 + "5", "-123456789012345678901234567890123456790"},
      {"rounding carries through", std::string(39, '9'), "1" + std::string(39, '0')},
      {"greatest number", std::string(38, '9') + "e127", std::string(38, '9') + std::string(127, '0')},
      {"exponent moves into the digits", "1e164", "1" + std::string(164, '0')},
      {"too large", "1e165", std::nullopt},
      {"least exponent", "1e-128", "0." + std::string(127, '0') + "1"},
      {"too small", "1e-129", std::nullopt},
      {"exponent beyond any machine number", "1e99999999999999999999", std::nullopt},
      {"long fraction does not hide the exponent", "0." + std::string(1'000'010, '0') + "1e2000000",
       std::nullopt},
      {"long fraction meets its exponent", "0." + std::string(1'000'009, '0') + "1e1000012", "100"},
      {"empty", "", std::nullopt},
      {"two signs", "--1", std::nullopt},
      {"NUL", "1\0"s, std::nullopt}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto number = NSDecimalNumber::fromString(c.text);
    EXPECT_EQ(number ? std::optional(number->stringValue()) : std::nullopt, c.value);
  }
}

TEST(DecimalNumber, OtherForms) {
  const auto value = [](const char* text) { return NSDecimalNumber::fromString(text)->int64Value(); };
  EXPECT_EQ(value("-12.99"), -12);
  EXPECT_EQ(value("1e30"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(value("-1e30"), std::numeric_limits<std::int64_t>::min());
  EXPECT_DOUBLE_EQ(NSDecimalNumber::fromString("12.5e-1")->doubleValue(), 1.25);
  EXPECT_EQ(as<NSDecimalNumber>(id(NSNumber::withInt(1))), nullptr);
  EXPECT_NE(as<NSDecimalNumber>(id(NSDecimalNumber::fromString("1"))), nullptr);
}

TEST(Number, Equality) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    std::shared_ptr<NSNumber> left;
    std::shared_ptr<NSNumber> right;
    bool equal;
  };
  const auto decimal = [](const char* text) { return NSDecimalNumber::fromString(text); };
  const Case cases[] = {
      {"integer and double", NSNumber::withInt(3), NSNumber::withDouble(3), true},
      {"integer and decimal", NSNumber::withInt(1000), decimal("1e3"), true},
      {"double and decimal", NSNumber::withDouble(0.1), decimal("0.1"), true},
      {"more digits than a double, integers", NSNumber::withInt(9007199254740993),
       NSNumber::withInt(9007199254740992), false},
      {"more digits than a double, real", NSNumber::withInt(9007199254740993),
       NSNumber::withDouble(9007199254740992), false},
      {"more digits than a double, decimal", NSNumber::withInt(9007199254740993), decimal("9007199254740992"),
       false},
      {"just beyond the integers", NSNumber::withInt(std::numeric_limits<std::int64_t>::max()),
       NSNumber::withDouble(9223372036854775808.0), false},
      {"not-a-number constant and itself", NSDecimalNumber::notANumber(), NSDecimalNumber::notANumber(),
       true},
      {"two not-a-numbers", NSNumber::withDouble(nan), NSNumber::withDouble(nan), false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.left->isEqual(*c.right), c.equal);
    EXPECT_EQ(c.right->isEqual(*c.left), c.equal);
    if (!c.equal) continue;
    EXPECT_EQ(c.left->hash(), c.right->hash());
  }
}

TEST(Number, IntegerOfAReal) {
  const auto value = [](double real) { return NSNumber::withDouble(real)->int64Value(); };
  EXPECT_EQ(value(-1.9), -1);
  EXPECT_EQ(value(1e300), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(value(-1e300), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(value(std::numeric_limits<double>::quiet_NaN()), 0);
}

TEST(Date, Iso8601) {
  struct Case {
    const char* name;
    const char* text;
    std::optional<long> sinceEpoch;  // seconds
  };
  const Case cases[] = {{"epoch", "1970-01-01T00:00:00Z", 0},
                        {"leap day", "2024-02-29T12:30:15Z", 1709209815},
                        {"no leap day", "2023-02-29T00:00:00Z", std::nullopt},
                        {"hour 24", "2023-01-01T24:00:00Z", std::nullopt},
                        {"sign for a digit", "2023-01-+1T00:00:00Z", std::nullopt},
                        {"beyond the clock", "9999-12-31T23:59:59Z", std::nullopt},
                        {"before the clock", "0001-01-01T00:00:00Z", std::nullopt},
                        {"empty", "", std::nullopt}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto time = NSDate::fromIso8601(c.text);
    ASSERT_EQ(time.has_value(), c.sinceEpoch.has_value());
    if (!time) continue;
    EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(*time).time_since_epoch().count(), *c.sinceEpoch);
    EXPECT_EQ(NSDate::iso8601(*time), c.text);
  }
  EXPECT_EQ(NSDate::iso8601(NSDate::Time(std::chrono::milliseconds(-1))), "1969-12-31T23:59:59Z");
}

TEST(Url, FilePaths) {
  const Row rows[] = {{"looks encoded", "/a%20b \u00e9", "file:///a%2520b%20%C3%A9"},
                      {"query and fragment", "/a?b#c", "file:///a%3Fb%23c"},
                      {"no UTF-8", "/\xff", "file:///%FF"},
                      {"trailing slash", "/a/", "file:///a/"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto url = NSURL::fileURLWithPath(row.in);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->absoluteString(), row.out);
    EXPECT_EQ(url->path(), row.in);
  }
  EXPECT_EQ(NSURL::fileURLWithPath("relative"), nullptr);
  EXPECT_EQ(NSURL::fileURLWithPath("/a\0b"s), nullptr);
}

TEST(Url, PathOfForeignTexts) {
  check({{"host", "file://localhost/a", "/a"},
         {"broken escape", "file:///a%2", ""},
         {"escaped slash", "file:///a%2Fb", ""},
         {"query is no path", "file:///a?b", "/a"},
         {"hidden NUL", "file:///etc%00/x", ""},
         {"other scheme", "https://example.org/a", ""}},
        [](const std::string& url) { return NSURL(url).path(); });
}
