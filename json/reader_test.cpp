#include <array>

#include <gtest/gtest.h>

#include "json/JsonTestText.h"
#include "json/QJJsonParser.h"

namespace {

const std::string inArray = "3 Expected value while parsing array";
const std::string inKeyA = "3 Object value expected for key: a";
const std::string badUnit = "6 Broken unicode character";
const std::string noDecimal = "2 Failed creating decimal instance";
const std::string noLead = "3 Unrecognised leading character";
const std::string noQuad = "6 Missing hex digit in quad";
const std::string noLow = "6 Missing low character in surrogate pair";
const std::string badHigh = "6 Invalid high character in surrogate pair";

struct Refusal {
  const char* name;
  std::string text;
  Chain errors;  // innermost first
};
const Refusal refusals[] = {
    {"Plus", "[+1]", {"2 Leading + disallowed in number", inArray}},
    {"LeadingZero", "[01]", {"2 Leading 0 disallowed in number", inArray}},
    {"LeadingZeroAfterMinus", "[-00]", {"2 Leading 0 disallowed in number", inArray}},
    {"MinusAlone", "[-]", {"2 No digits after initial minus", inArray}},
    {"MinusAtTheEnd", "-", {"2 No digits after initial minus"}},
    {"PointAlone", "[1.]", {"2 No digits after decimal point", inArray}},
    {"PointThenExponent", "[1.e3]", {"2 No digits after decimal point", inArray}},
    {"ExponentAlone", "[1e]", {"2 No digits after exponent", inArray}},
    {"ExponentSignAlone", "[1E+]", {"2 No digits after exponent", inArray}},
    {"DecimalTooLarge", "[1e200]", {noDecimal, inArray}},
    {"DecimalTooSmall", "[1e-200]", {noDecimal, inArray}},
    {"DecimalWithEndlessExponent", "[1e99999999999999999999]", {noDecimal, inArray}},
    {"DecimalOfTooManyDigits", "[" + std::string(300, '9') + "]", {noDecimal, inArray}},
    {"UnknownCharacter", "[?]", {noLead, inArray}},
    {"CommaFirst", "[,1]", {noLead, inArray}},
    {"TwoCommas", "[1,,2]", {noLead, inArray}},
    {"WrongClosing", "[1}", {noLead, inArray}},
    {"True", "[truE]", {"3 Expected 'true'", inArray}},
    {"False", "[fals]", {"3 Expected 'false'", inArray}},
    {"Null", R"({"a":nul})", {"3 Expected 'null'", inKeyA}},
    {"LetterAfterLiteral", "[nullx]", {noLead, inArray}},
    {"NoKey", "{1:2}", {"3 Object key string expected"}},
    {"CommaBeforeKey", "{,}", {"3 Object key string expected"}},
    {"BlankThenEndInObject", "{ ", {"3 Object key string expected"}},
    {"BrokenKey", "{\"a", {"11 Unexpected EOF while parsing string", "3 Object key string expected"}},
    {"NoColon", R"({"a" 1})", {"3 Expected ':' separating key and value"}},
    {"EndInsteadOfColon", R"({"a")", {"3 Expected ':' separating key and value"}},
    {"NoValue", R"({"a":})", {noLead, inKeyA}},
    {"EndInsteadOfMember", R"({"a":)", {"11 Unexpected end of string", inKeyA}},
    {"Number", "1", {"4 Valid fragment, but not JSON"}},
    {"String", R"("a")", {"4 Valid fragment, but not JSON"}},
    {"Literal", " null ", {"4 Valid fragment, but not JSON"}},
    {"RawTab", "[\"\t\"]", {"5 Unescaped control character '0x9'", inArray}},
    {"RawUnitSeparator", "[\"a\x1F\"]", {"5 Unescaped control character '0x1f'", inArray}},
    {"ShortQuad", R"(["\u12"])", {noQuad, "6 Missing hex quad", badUnit, inArray}},
    {"NoHexDigit", R"(["\u00g0"])", {noQuad, "6 Missing hex quad", badUnit, inArray}},
    {"HighAlone", R"(["\ud800"])", {noLow, badUnit, inArray}},
    {"HighThenEscape", R"(["\ud800\n"])", {noLow, badUnit, inArray}},
    {"HighThenShortQuad", R"(["\ud800\udc"])", {noQuad, noLow, badUnit, inArray}},
    {"HighThenLetter", R"(["\ud800\u0041"])", {"6 Invalid low surrogate char", badUnit, inArray}},
    {"HighThenHigh", R"(["\ud800\ud800"])", {"6 Invalid low surrogate char", badUnit, inArray}},
    {"LastLowSurrogate", R"(["\ud800\udfff"])", {"6 Invalid low surrogate char", badUnit, inArray}},
    {"LowAlone", R"(["\udc00"])", {badHigh, badUnit, inArray}},
    {"BrokenUnitInKey", R"({"\udfff":1})", {badHigh, badUnit, "3 Object key string expected"}},
    {"Escape", R"(["\x41"])", {"8 Illegal escape sequence '0x78'", inArray}},
    {"EscapedLetterBeyondAscii", "[\"\\\xC3\xA9\"]", {"8 Illegal escape sequence '0xc3'", inArray}},
    {"CommaBeforeBracket", "[1, ]", {"9 Trailing comma disallowed in array"}},
    {"CommaBeforeBrace", R"({"a":1,})", {"9 Trailing comma disallowed in object"}},
    {"CommaInInnerArray", R"({"a":[[1,]]})", {"9 Trailing comma disallowed in array", inArray, inKeyA}},
    {"Letter", "[1] x", {"10 Garbage after JSON"}},
    {"SecondValue", "{}[]", {"10 Garbage after JSON"}},
    {"LetterAfterBareLiteral", "truex", {"10 Garbage after JSON"}},
    {"Empty", "", {"11 Unexpected end of string"}},
    {"WhiteSpace", " \t\n\v\f\r", {"11 Unexpected end of string"}},
    {"EndAfterBracket", "[", {"11 End of input while parsing array"}},
    {"EndAfterBracketAndBlank", "[ ", {"11 Unexpected end of string", inArray}},
    {"EndAfterElement", "[1 ", {"11 End of input while parsing array"}},
    {"EndAfterComma", "[1, ", {"11 End of input while parsing array"}},
    {"EndAfterBrace", "{", {"11 End of input while parsing object"}},
    {"EndAfterMember", R"({"a":1 )", {"11 End of input while parsing object"}},
    {"EndInPlainString", "[\"a", {"11 Unexpected EOF while parsing string", inArray}},
    {"EndAfterBackslash", "[\"a\\", {"11 Unexpected EOF while parsing string", inArray}},
    {"LongKeyInChain",
     "{\"" + std::string(100, 'k') + "\":?}",
     {noLead, "3 Object value expected for key: " + std::string(100, 'k')}},
};

TEST(Reader, RefusesWithTheWholeChainOfErrors) {
  for (const Refusal& row : refusals) {
    SCOPED_TRACE(row.name);
    QJJsonParser parser;
    NSErrorRef error;
    EXPECT_EQ(shown(parser.objectWithString(row.text, &error)), "nothing");
    EXPECT_EQ(chainOf(parser), row.errors);
    ASSERT_TRUE(error);
    EXPECT_EQ(std::to_string(error->code()) + " " + error->localizedDescription(), row.errors.back());
  }
}

TEST(Reader, NothingIsNoText) {
  QJJsonParser parser;
  const std::array<id, 2> nothing{id(), NSNumber::withInt(1)};
  for (const id& text : nothing) {
    NSErrorRef error;
    EXPECT_FALSE(parser.objectWithString(text, &error));
    EXPECT_EQ(chainOf(parser), Chain{"12 Input was 'nil'"});
    EXPECT_EQ(error->code(), 12);
  }
  EXPECT_FALSE(parser.objectWithString(nullptr));
}

struct Accepted {
  const char* name;
  std::string text;
  std::string value;
};

TEST(Reader, AcceptsAndKeepsTheKindOfEachValue) {
  const Accepted rows[] = {
      {"empty", " [ ] ", "[]"},
      {"no commas", R"([1 2"a"{}null[]])", R"([i1,i2,"a",{},<null>,[]])"},
      {"no commas between members", R"({"a":1"b":2})", R"({"a":i1,"b":i2})"},
      {"all white space", "[\v1\f,\r2\n,\t3 ]", "[i1,i2,i3]"},
      {"literals", "[true false null]", "[b1,b0,<null>]"},
      {"literals without a gap", "[truefalsenull]", "[b1,b0,<null>]"},
      {"later key replaces", R"({"a":1,"b":2,"a":3})", R"({"a":i3,"b":i2})"},
      {"key by escape is the same key", R"({"a":1,"\u0061":2})", R"({"a":i2})"},
      {"largest integer", "[9223372036854775807]", "[i9223372036854775807]"},
      {"one more", "[9223372036854775808]", "[d9223372036854775808]"},
      {"smallest integer", "[-9223372036854775807]", "[i-9223372036854775807]"},
      {"one less", "[-9223372036854775808]", "[d-9223372036854775808]"},
      {"twenty digits", "[99999999999999999999]", "[d99999999999999999999]"},
      {"around the shared integers", "[-1 0 255 256]", "[i-1,i0,i255,i256]"},
      {"minus zero", "[-0]", "[i0]"},
      {"minus zero point zero", "[-0.0]", "[d0]"},
      {"exponent", "[1e3,1E-3,12.5e+1]", "[d1000,d0.001,d125]"},
      {"whole fraction", "[100.00]", "[d100]"},
      {"thirty-eight digits", "[1234567890123456789012345678.9012345678]",
       "[d1234567890123456789012345678.9012345678]"},
      {"thirty-nine digits", "[0.123456789012345678901234567890123456785]",
       "[d0.12345678901234567890123456789012345679]"},
      {"escapes", R"(["\"\\\/\b\f\n\r\t\u0041\u00e9\u20AC"])", "[\"\"\\/\b\f\n\r\tA\xC3\xA9\xE2\x82\xAC\"]"},
      {"empty string", R"(["",{"":""}])", R"(["",{"":""}])"},
      {"escaped NUL", R"(["a\u0000b"])", std::string("[\"a\0b\"]", 7)},
      {"pair becomes one unit", R"(["\ud83d\ude00"])", "[\"\xEF\x98\x80\"]"},
      {"pair becomes NUL", R"(["\ud800\udc00"])", std::string("[\"\0\"]", 5)},
      {"pair becomes a control character", R"(["\ud800\udc1f"])", "[\"\x1F\"]"},
      {"last pair accepted", R"(["\udbff\udffe"])", "[\"\xEF\xBF\xBE\"]"},
      {"pair becomes half of one", R"(["\ud836\udc00"])", "[\"\xED\xA0\x80\"]"},
      {"two halves in a row are one character", R"(["\ud836\udc00\ud837\udc00"])", "[\"\xF0\x90\x80\x80\"]"},
      {"raw beyond the basic plane", "[\"\xF0\x9F\x98\x80\"]", "[\"\xF0\x9F\x98\x80\"]"},
      {"delete is a character", "[\"\x7F\"]", "[\"\x7F\"]"}};
  for (const Accepted& row : rows) {
    SCOPED_TRACE(row.name);
    QJJsonParser parser;
    NSErrorRef error;
    EXPECT_EQ(shown(parser.objectWithString(row.text, &error)), row.value);
    EXPECT_FALSE(parser.errorTrace());
    EXPECT_FALSE(error);
  }
}

TEST(Reader, NestingIsBoundedByMaxDepth) {
  struct Case {
    const char* name;
    std::size_t maxDepth, levels;
    bool isAccepted;
  };
  const Case cases[] = {{"the default", 512, 512, true},
                        {"one too many", 512, 513, false},
                        {"one", 1, 1, true},
                        {"more than one", 1, 2, false},
                        {"no limit", 0, 100'000, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    QJJsonParser parser;
    if (c.maxDepth != 512) parser.setMaxDepth(c.maxDepth);
    EXPECT_EQ(parser.maxDepth(), c.maxDepth);
    const bool isArray =
        parser.objectWithString(repeated("[", c.levels) + repeated("]", c.levels)) != nullptr;
    EXPECT_EQ(isArray, c.isAccepted);
    if (c.isAccepted) continue;
    Chain expected(c.levels - 1, inArray);
    expected.insert(expected.begin(), "7 Nested too deep");
    EXPECT_EQ(chainOf(parser), expected);
  }
  // Siblings do not add up.
  EXPECT_TRUE(QJJsonParser().objectWithString("[" + repeated("[[]{}]", 600) + "]"));
}

TEST(Reader, UnclosedNestingCostsNoStack) {
  constexpr std::size_t levels = 100'000;
  for (const char* opening : {"[", R"({"a":)"}) {
    QJJsonParser parser;
    parser.setMaxDepth(0);
    NSErrorRef error;
    EXPECT_FALSE(parser.objectWithString(repeated(opening, levels), &error));
    EXPECT_GE(parser.errorTrace()->items().size(), levels);
    parser.clearErrorTrace();  // from here on `error` alone holds the whole chain
  }
}

TEST(Reader, IsReusableAfterEachOutcome) {
  QJJsonParser parser;
  EXPECT_FALSE(parser.objectWithString(R"([[{"a":["b)"));
  EXPECT_EQ(shown(parser.objectWithString(R"({"a":[1]})")), R"({"a":[i1]})");
  EXPECT_FALSE(parser.errorTrace());
  EXPECT_FALSE(parser.objectWithString("1"));
  EXPECT_EQ(chainOf(parser), Chain{"4 Valid fragment, but not JSON"});
}

// Values outlive the parser, the text and each other.
TEST(Reader, AValueLivesOnAlone) {
  id kept;
  {
    std::string text =
        R"({"list":[)" + repeated(R"("a string of more than fifteen bytes",1000,)", 3000) + "7.25]}";
    const id whole = QJJsonParser().objectWithString(text);
    text.assign(text.size(), 'x');
    kept = as<NSArray>(as<NSDictionary>(whole)->objectForKey("list"))->items()[2998];
  }
  EXPECT_EQ(shown(kept), "\"a string of more than fifteen bytes\"");
}

TEST(Reader, EqualKeysShareOneObject) {
  const char* const text = R"([{"sharedKey":1},{"sharedKey":2},{"sharedKey":3},{"sharedKey":4}])";
  const auto key = [](const id& list, std::size_t at) {
    return as<NSDictionary>(as<NSArray>(list)->items()[at])->entries()[0].first;
  };
  const id first = QJJsonParser().objectWithString(text);
  const id second = QJJsonParser().objectWithString(text);
  EXPECT_EQ(key(first, 2), key(first, 3));
  EXPECT_EQ(key(first, 3), key(second, 0));
}

TEST(Reader, ManyKeysAreToldApart) {
  // Enough to fill what the process keeps of names; in each length class, and alike at both ends.
  std::string text = "[";
  for (int pass = 0; pass < 2; ++pass) {
    text += "{";
    for (int at = 0; at < 6000; ++at) {
      const std::string number = std::to_string(at);
      text += '"' + number + "\":" + number + ",\"prefix__" + number + "__suffix\":" + number + " ";
    }
    text += "}";
  }
  const id list = QJJsonParser().objectWithString(text + "]");
  for (const id& item : as<NSArray>(list)->items()) {
    const auto dictionary = as<NSDictionary>(item);
    ASSERT_EQ(dictionary->count(), 12'000U);
    for (int at = 0; at < 6000; ++at) {
      const std::string number = std::to_string(at);
      ASSERT_EQ(shown(dictionary->objectForKey(number)), "i" + number);
      ASSERT_EQ(shown(dictionary->objectForKey("prefix__" + number + "__suffix")), "i" + number);
    }
  }
}

}  // namespace
