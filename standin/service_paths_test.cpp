#include <gtest/gtest.h>

#include "standin/Encoding.h"
#include "standin/api/JsonWriter.h"
#include "standin/api/Thumbnails.h"
#include "standin/http/HttpSession.h"
#include "standin/store/BlockHash.h"
#include "standin/store/NormalPath.h"
#include "standin/store/Tokens.h"

namespace kzv::standin {
namespace {

TEST(Paths, AreAcceptedAndNormalised) {
  struct Row {
    const char* name;
    std::string given, display, lower;
  };
  const std::string longest = "/" + std::string(255, 'x');
  const Row accepted[] = {
      {"root", "", "", ""},
      {"case is kept and ignored", "/A/b.TXT", "/A/b.TXT", "/a/b.txt"},
      {"doubled slash", "//A///b", "/A/b", "/a/b"},
      {"decomposed letters", "/e\xCC\x81", "/\xC3\xA9", "/\xC3\xA9"},
      {"letters beyond ASCII", "/\xC3\x84\xC3\x96", "/\xC3\x84\xC3\x96", "/\xC3\xA4\xC3\xB6"},
      {"final sigma is not special", "/\xCE\xA3\xCE\xA3", "/\xCE\xA3\xCE\xA3", "/\xCF\x83\xCF\x83"},
      {"characters a disk would refuse", "/<>:\"|?*", "/<>:\"|?*", "/<>:\"|?*"},
      {"longest name", longest, longest, longest},
  };
  for (const Row& row : accepted) {
    SCOPED_TRACE(row.name);
    NormalPath path;
    EXPECT_EQ(normalisePath(row.given, {}, path), PathVerdict::ok);
    EXPECT_EQ(path.display, row.display);
    EXPECT_EQ(path.lower, row.lower);
  }
  NormalPath path;
  for (const std::string& given :
       {longest + "x", std::string("a"), std::string("/"), std::string("//"), std::string("/a/"),
        std::string("/a "), std::string("/a /b"), std::string("/a\n"), std::string("/a\\b"),
        std::string("/a\0b", 4), std::string("/a\x7F"), std::string("/a/./b"), std::string("/a/..")})
    EXPECT_EQ(normalisePath(given, {}, path), PathVerdict::malformed) << given;
  for (const char* given : {"/a/Thumbs.DB", "/Icon\r", "/~$letter.doc", "/~x.tmp"})
    EXPECT_EQ(normalisePath(given, {}, path), PathVerdict::disallowedName) << given;
}

TEST(Paths, CharactersBeyondTheBasicPlaneCountDoubleAndCanBeRefused) {
  const std::string flower = "\xF0\x9F\x8C\xBB";
  NormalPath path;
  EXPECT_EQ(normalisePath("/" + flower, {false}, path), PathVerdict::ok);
  EXPECT_EQ(normalisePath("/" + flower, {true}, path), PathVerdict::malformed);
  std::string many = "/";
  for (int i = 0; i < 128; ++i) many += flower;
  EXPECT_EQ(normalisePath(many, {false}, path), PathVerdict::malformed);
}

TEST(Paths, SubtreeRangeContainsDescendantsOnly) {
  const KeyRange range = subtreeRange("/a");
  for (const char* inside : {"/a/b", "/a/ ", "/a/\xC3\xA9"}) {
    EXPECT_TRUE(inside > range.first && inside < range.end) << inside;
  }
  for (const char* outside : {"/a", "/a b", "/ab", "/a0", "/a-b"}) {
    EXPECT_FALSE(outside > range.first && outside < range.end) << outside;
  }
}

TEST(Paths, SuffixGoesBeforeTheExtension) {
  EXPECT_EQ(withSuffix("a.txt", " (1)", false), "a (1).txt");
  EXPECT_EQ(withSuffix("a.tar.gz", " (1)", false), "a.tar (1).gz");
  EXPECT_EQ(withSuffix(".profile", " (1)", false), ".profile (1)");
  EXPECT_EQ(withSuffix("photos.2024", " (1)", true), "photos.2024 (1)");
}

TEST(BlockHash, MatchesThePublishedValues) {
  const std::pair<std::string, const char*> rows[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"},
      {std::string(4194304, '\0'), "c7e946d101855255d919ef0c70718633adf77d3dfb3adeeecf5d0cb4e951be58"},
      {std::string(4194305, '\0'), "14a4d47f23a30177885d9820122f17d2d3a55fe63f7f5c27b95f689e0b2accd6"},
  };
  for (const auto& [bytes, hash] : rows) {
    EXPECT_EQ(hexEncode(contentHash(bytes)), hash);
    BlockHash pieces;
    for (std::size_t i = 0; i < bytes.size(); i += 777777)
      pieces.update(std::string_view(bytes).substr(i, 777777));
    EXPECT_EQ(hexEncode(pieces.digest()), hash);
  }
}

TEST(Encoding, TimesAreStrict) {
  EXPECT_EQ(parseIsoTime("2024-05-01T09:30:00Z"), 1714555800);
  EXPECT_EQ(isoTime(1714555800), "2024-05-01T09:30:00Z");
  for (const char* wrong :
       {"2024-05-01T09:30:00", "2024-05-01T09:30:00.5Z", "2024-05-01 09:30:00Z", "2024-04-31T00:00:00Z",
        "2024-05-01T24:00:00Z", "2024-05-01T09:30:00+", "x024-05-01T09:30:00Z"}) {
    EXPECT_FALSE(parseIsoTime(wrong)) << wrong;
  }
}

TEST(Encoding, HeaderJsonIsPrintableAscii) {
  EXPECT_EQ(asciiJson("\"\xC3\xA9\x7F\xF0\x9F\x8C\xBB\""), "\"\\u00e9\\u007f\\ud83c\\udf3b\"");
}

TEST(Encoding, VerifierBelongsToItsChallenge) {
  Approval approval;
  approval.challenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
  EXPECT_TRUE(verifierMatches(approval, "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"));
  EXPECT_FALSE(verifierMatches(approval, "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXl"));
  approval.challenge = "short";
  approval.challengeIsPlain = true;
  EXPECT_FALSE(verifierMatches(approval, "short")) << "a verifier has at least 43 characters";
}

TEST(HttpHead, RefusesAmbiguousMessages) {
  struct Row {
    const char* name;
    std::string head;
    bool accepted;
  };
  const Row rows[] = {
      {"plain", "POST /2/x HTTP/1.1\r\nHost: h\r\nContent-Length: 3", true},
      {"chunked", "POST /x HTTP/1.1\r\nTransfer-Encoding: chunked", true},
      {"two lengths", "POST /x HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 3", false},
      {"length and chunked", "POST /x HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked", false},
      {"other coding", "POST /x HTTP/1.1\r\nTransfer-Encoding: gzip", false},
      {"negative length", "POST /x HTTP/1.1\r\nContent-Length: -1", false},
      {"length beyond all measure", "POST /x HTTP/1.1\r\nContent-Length: 99999999999999999999", false},
      {"line feed in a value", "POST /x HTTP/1.1\r\nA: b\nContent-Length: 3", false},
      {"zero in a value", std::string("POST /x HTTP/1.1\r\nA: b\0c", 25), false},
      {"blank before the colon", "POST /x HTTP/1.1\r\nA : b", false},
      {"no version", "POST /x", false},
      {"other version", "POST /x HTTP/2.0", false},
      {"blank in the target", "POST /x y HTTP/1.1", false},
      {"whole address as target", "POST http://h/x HTTP/1.1", false},
      {"empty", "", false},
      {"larger than any client's", "POST /x HTTP/1.1\r\nA: " + std::string(300000, 'a'), false},
  };
  for (const Row& row : rows)
    EXPECT_EQ(parseRequestHead(row.head + "\r\n\r\n").has_value(), row.accepted) << row.name;
}

TEST(HttpHead, KeepsHeaderBytesUnchanged) {
  const auto request =
      parseRequestHead("POST /a?b=c HTTP/1.1\r\ndropbox-api-ARG:  {\"path\":\"/%41+\xC3\xA9\"} \t\r\n\r\n");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header("Dropbox-API-Arg"), "{\"path\":\"/%41+\xC3\xA9\"}");
  EXPECT_EQ(request->path, "/a");
  EXPECT_EQ(request->query, "b=c");
}

TEST(Thumbnails, FitTheBoxAndAreNeverEnlarged) {
  struct Row {
    const char* name;
    PictureSize original;
    ThumbnailMode mode;
    PictureSize expected;
  };
  const Row rows[] = {
      {"wide", {2000, 1000}, ThumbnailMode::strict, {1024, 512}},
      {"tall", {1000, 2000}, ThumbnailMode::strict, {384, 768}},
      {"small", {10, 20}, ThumbnailMode::strict, {10, 20}},
      {"tall in the turned box", {1000, 2000}, ThumbnailMode::bestFit, {512, 1024}},
      {"covering", {2000, 1000}, ThumbnailMode::fitOneBestFit, {1536, 768}},
      {"as it is", {5000, 4000}, ThumbnailMode::original, {5000, 4000}},
      {"a line", {5000, 1}, ThumbnailMode::strict, {1024, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const PictureSize size = thumbnailSize(row.original, {1024, 768, row.mode, "jpeg"});
    EXPECT_EQ(size.width, row.expected.width);
    EXPECT_EQ(size.height, row.expected.height);
  }
}

}  // namespace
}  // namespace kzv::standin
