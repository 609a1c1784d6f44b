#include <cstring>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "json/JsonTestText.h"
#include "json/JsonText.h"
#include "json/QJJsonParser.h"

namespace {

const std::string inArray = "3 Expected value while parsing array";
const std::string broken = "6 Broken unicode character";

/// Reads from memory of exactly the text's size, so that AddressSanitizer sees a step past its end.
id readExactly(QJJsonParser& parser, std::string_view text) {
  const auto bytes = std::make_unique<char[]>(text.size());
  std::memcpy(bytes.get(), text.data(), text.size());
  return parser.objectWithString(std::string_view(bytes.get(), text.size()));
}

TEST(ReaderBytes, HostileTextsAreErrorsOfTheTrace) {
  struct Case {
    const char* name;
    std::string text;
    Chain errors;
  };
  using namespace std::string_literals;
  const Case cases[] = {
      {"NUL alone", "\0"s, {"11 Unexpected end of string"}},
      {"NUL after the value", "[1]\0"s, {"10 Garbage after JSON"}},
      {"NUL in an array", "[1\0]"s, {"11 End of input while parsing array"}},
      {"NUL in an object", "{\0}"s, {"11 End of input while parsing object"}},
      {"NUL as a value",
       "{\"a\":\0}"s,
       {"11 Unexpected end of string", "3 Object value expected for key: a"}},
      {"NUL in a string", "[\"a\0b\"]"s, {"11 Unexpected EOF while parsing string", inArray}},
      {"NUL after a backslash", "[\"\\\0\"]"s, {"11 Unexpected EOF while parsing string", inArray}},
      {"NUL in a quad",
       "[\"\\u00\0\"]"s,
       {"6 Missing hex digit in quad", "6 Missing hex quad", broken, inArray}},
      {"NUL in a number", "[1.\0]"s, {"2 No digits after decimal point", inArray}},
      {"NUL in a literal", "[tr\0e]"s, {"3 Expected 'true'", inArray}},
      {"byte-order mark", "\xEF\xBB\xBF[]", {"3 Unrecognised leading character"}},
      {"UTF-16", "[\0]\0"s, {"11 End of input while parsing array"}},
      {"no-break space is no white space", "[\xC2\xA0]", {"3 Unrecognised leading character", inArray}},
      {"next line is no white space", "[\x85]", {"3 Unrecognised leading character", inArray}},
      {"continuation alone", "[\"\x80\"]", {broken, inArray}},
      {"lead alone", "[\"\xC3\"]", {broken, inArray}},
      {"lead at the end", "[\"\xC3", {broken, inArray}},
      {"three of four", "[\"\xF0\x9F\x98\"]", {broken, inArray}},
      {"overlong slash", "[\"\xC0\xAF\"]", {broken, inArray}},
      {"overlong NUL", "[\"\xC0\x80\"]", {broken, inArray}},
      {"overlong in three", "[\"\xE0\x9F\xBF\"]", {broken, inArray}},
      {"overlong in four", "[\"\xF0\x8F\xBF\xBF\"]", {broken, inArray}},
      {"beyond the last character", "[\"\xF4\x90\x80\x80\"]", {broken, inArray}},
      {"five bytes", "[\"\xF8\x88\x80\x80\x80\"]", {broken, inArray}},
      {"never a byte", "[\"\xFF\"]", {broken, inArray}},
      {"both halves of a pair", "[\"\xED\xA0\x80\xED\xB0\x80\"]", {broken, inArray}},
      {"broken after an escape", "[\"\\n\xFF\"]", {broken, inArray}},
      {"broken behind thirty plain bytes", "[\"" + std::string(30, 'x') + "\xFF\"]", {broken, inArray}},
      {"broken in a key", "{\"\xFF\":1}", {broken, "3 Object key string expected"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    QJJsonParser parser;
    EXPECT_FALSE(readExactly(parser, c.text));
    EXPECT_EQ(chainOf(parser), c.errors);
  }
}

TEST(ReaderBytes, GeneralisedUtf8IsKeptAsItIs) {
  for (const char* text :
       {"\xED\xA0\x80", "\xED\xB0\x80", "\xED\xB0\x80\xED\xA0\x80", "\xED\xA0\x80x\xED\xB0\x80",
        "\xDF\xBF\xE0\xA0\x80\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"}) {
    QJJsonParser parser;
    EXPECT_EQ(shown(readExactly(parser, "[\"" + std::string(text) + "\"]")),
              "[\"" + std::string(text) + "\"]");
  }
}

const std::string everything =
    R"({"path":"/a\\b\u00e9\ud83d\ude00","n":[-12,0.5e-3,true,false,null,{}],"ü":"größer als sechzehn"})";

TEST(ReaderBytes, ATextMayEndAnywhere) {
  QJJsonParser parser;
  for (std::size_t size = 0; size < everything.size(); ++size) {
    EXPECT_FALSE(readExactly(parser, everything.substr(0, size))) << size;
    EXPECT_TRUE(parser.errorTrace()) << size;
  }
  EXPECT_TRUE(readExactly(parser, everything));
}

TEST(ReaderBytes, EachByteMayBeAnother) {
  QJJsonParser parser;
  for (std::size_t at = 0; at < everything.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string text = everything;
      text[at] = static_cast<char>(byte);
      const bool isRead = readExactly(parser, text) != nullptr;
      ASSERT_EQ(isRead, parser.errorTrace() == nullptr) << at << " " << byte;
      ASSERT_FALSE(isRead && byte == 0) << at;
    }
  }
}

// The quick scans against the plain rule, with each stop at each place of each length.
TEST(ReaderBytes, PlainRunsEndWhereTheyShould) {
  for (std::size_t size = 0; size <= 40; ++size) {
    for (std::size_t stop = 0; stop <= size; ++stop) {
      for (const char byte : {'"', '\\', '\0', '\x1F', '\x20', '\x7F', '\x80', '\xFF', '!', '#', '[', ']'}) {
        std::string text(size, 'a');
        if (stop < size) text[stop] = byte;
        if (stop + 1 < size) text[stop + 1] = '\xC3';  // behind the stop, and not to be looked at
        const auto code = static_cast<unsigned char>(byte);
        const bool stops = stop < size && (byte == '"' || byte == '\\' || code < 0x20);
        const bool hasHigh = !stops && (stop + 1 < size || (stop < size && code >= 0x80));
        const auto exact = std::make_unique<char[]>(size);
        std::memcpy(exact.get(), text.data(), size);
        const PlainRun run = plainRun({exact.get(), size});
        ASSERT_EQ(run.sizeBytes, stops ? stop : size) << size << " " << stop << " " << int{byte};
        ASSERT_EQ(run.isAscii, !hasHigh) << size << " " << stop << " " << int{byte};
        const auto copy = std::make_unique<char[]>(size);
        ASSERT_EQ(copyPlain({exact.get(), size}, copy.get()), !stops)
            << size << " " << stop << " " << int{byte};
        ASSERT_TRUE(stops || std::string_view(copy.get(), size) == text) << size << " " << stop;
      }
    }
  }
}

}  // namespace
