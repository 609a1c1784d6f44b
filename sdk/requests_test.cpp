#include <boost/json.hpp>
#include <chrono>
#include <limits>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "sdk/ClientInternals.h"
#include "sdk/DBError.h"
#include "sdk/DBServiceHosts.h"
#include "sdk/SessionInternals.h"
#include "sdk/wire/ErrorReader.h"
#include "sdk/wire/FormText.h"
#include "sdk/wire/RetryPolicy.h"
#include "sdk/wire/ServiceJson.h"
#include "sdk/wire/ServiceText.h"
#include "sdk/wire/WriteTurns.h"

namespace kzv::sdk {

namespace {

using std::chrono::milliseconds;
using namespace std::string_literals;

TEST(ArgumentText, IsPrintableAscii) {
  struct Case {
    const char* name;
    const char* text;
    const char* json;
  };
  const Case cases[] = {{"plain", "/a b", R"("/a b")"},
                        {"quotes", "a\"\\", R"("a\"\\")"},
                        {"line break", "a\r\n", R"("a\r\n")"},
                        {"delete", "\x7f", R"("\u007f")"},
                        {"two bytes", "\xC3\xA9", R"("\u00e9")"},
                        {"three bytes", "\xE2\x82\xAC", R"("\u20ac")"},
                        {"surrogate pair", "\xF0\x9F\x98\x80", R"("\ud83d\ude00")"}};
  for (const Case& c : cases) EXPECT_EQ(servicejson::asciiText(boost::json::value(c.text)), c.json) << c.name;
}

TEST(ArgumentText, PathsAreCleanedOrRefused) {
  EXPECT_EQ(servicePath("/"), "");
  EXPECT_EQ(servicePath("//"), "");
  EXPECT_EQ(servicePath("/A//b/"), "/A/b");
  EXPECT_EQ(servicePath("A"), std::nullopt);
  EXPECT_EQ(servicePath("rev:123456789"), std::nullopt);
}

TEST(FormText, EncodesAllButUnreservedCharacters) {
  EXPECT_EQ(formText({{"a", "x y&z=\xC3\xA9"}, {"empty", ""}, {"b", "A-_.~9"}}),
            "a=x%20y%26z%3D%C3%A9&b=A-_.~9");
}

TEST(DBServiceHosts, OnlySafeReplacementsAreTaken) {
  struct Case {
    const char* name;
    const char* replacement;
    const char* api;  // null: refused
  };
  const Case cases[] = {{"none", nullptr, "https://api.dropboxapi.com"},
                        {"empty", "", "https://api.dropboxapi.com"},
                        {"loopback", "http://127.0.0.1:8080/", "http://127.0.0.1:8080"},
                        {"loopback range", "http://127.9.9.9:1", "http://127.9.9.9:1"},
                        {"loopback 6", "http://[::1]:8080", "http://[::1]:8080"},
                        {"localhost", "http://localhost:1", "http://localhost:1"},
                        {"https anywhere", "https://stand-in.example", "https://stand-in.example"},
                        {"plain http elsewhere", "http://stand-in.example", nullptr},
                        {"looks like loopback", "http://127.0.0.1.example", nullptr},
                        {"user part", "http://127.0.0.1@example.com/", nullptr},
                        {"empty user part", "https://@example.com/", nullptr},
                        {"backslash", "http://127.0.0.1\\@example.com", nullptr},
                        {"escape in the host", "https://example%2ecom", nullptr},
                        {"path", "http://127.0.0.1:1/2", nullptr},
                        {"empty query", "https://example.com/?", nullptr},
                        {"port too large", "http://127.0.0.1:65536", nullptr},
                        {"line break", "https://example.com\r\nX: y", nullptr},
                        {"other scheme", "file:///etc", nullptr},
                        {"no scheme", "127.0.0.1:8080", nullptr},
                        {"blank", " ", nullptr},
                        {"not a URL", "http://[", nullptr}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const DBServiceHosts hosts = DBServiceHosts::from(c.replacement);
    EXPECT_EQ(hosts.refusal ? hosts.refusal->code() : 0, c.api ? 0 : DBErrorServiceAddress);
    EXPECT_EQ(hosts.api, c.api ? c.api : "");
  }
}

HttpResponse answer(long status, std::optional<std::int64_t> retryAfter = std::nullopt) {
  HttpResponse response;
  response.status = status;
  response.retryAfterSeconds = retryAfter;
  return response;
}

TEST(RetryPolicy, WaitsAsToldWithinItsBounds) {
  RetryPolicy policy;
  EXPECT_EQ(policy.waitBeforeRepeating(answer(429, 100), 0), milliseconds(100'000));
  EXPECT_EQ(policy.waitBeforeRepeating(answer(503, 200), 0), milliseconds(200'000));
  EXPECT_EQ(policy.waitBeforeRepeating(answer(429, 1), 0), std::nullopt) << "five minutes are used up";
  RetryPolicy often;
  for (int i = 1; i < RetryPolicy::maxTries; ++i) EXPECT_TRUE(often.waitBeforeRepeating(answer(429, 0), 0));
  EXPECT_EQ(often.waitBeforeRepeating(answer(429, 0), 0), std::nullopt);
}

TEST(RetryPolicy, WaitsForOtherWritersAreManyAndSpreadOut) {
  HttpResponse refused = answer(409);
  refused.body = R"({"error":{".tag":"path","reason":{".tag":"too_many_write_operations"}}})";
  for (const long status : {409L, 429L}) {
    SCOPED_TRACE(status);
    refused.status = status;
    if (status == 429) refused.body = R"({"error":{"reason":{".tag":"too_many_write_operations"}}})";
    RetryPolicy policy;
    milliseconds waited(0);
    int tries = 0;
    while (const auto wait = policy.waitBeforeRepeating(refused, 0.5)) {
      EXPECT_LT(RetryPolicy().waitBeforeRepeating(refused, 0), RetryPolicy().waitBeforeRepeating(refused, 1));
      waited += *wait;
      ++tries;
    }
    EXPECT_GT(tries, 50) << "others may be busy for long";
    EXPECT_LE(waited, RetryPolicy::maxWaitForOthers);
  }
  refused.body = R"({"error":{".tag":"path","reason":{".tag":"conflict"}}})";
  refused.status = 409;
  EXPECT_FALSE(RetryPolicy().waitBeforeRepeating(refused, 0));
}

TEST(WriteTurns, EachRefusalHalvesWhatIsSentAtOnceAndSuccessWidensIt) {
  using Outcome = WriteTurns::Outcome;
  WriteTurns turns;
  int inFlight = 0;
  const auto enter = [&] { return turns.enter("u", [&] { ++inFlight; }); };
  const auto leave = [&](Outcome outcome) {
    --inFlight;
    turns.leave("u", outcome);
  };
  for (int i = 0; i < 16; ++i) enter();
  EXPECT_EQ(inFlight, 16);
  leave(Outcome::refused);
  for (int i = 0; i < 10; ++i) enter();
  EXPECT_EQ(inFlight, 15) << "eight at once from now on";
  while (inFlight > 8) leave(Outcome::failed);
  leave(Outcome::stored);
  EXPECT_EQ(inFlight, 8) << "whoever waited follows";
  for (int i = 0; i < 3; ++i) leave(Outcome::refused);
  EXPECT_EQ(inFlight, 5);
  while (inFlight > 1) leave(Outcome::failed);
  const auto waiting = enter();
  ASSERT_TRUE(waiting);
  enter();
  turns.withdraw("u", *waiting);
  EXPECT_EQ(turns.enter("another account", [] {}), std::nullopt);
  for (int i = 0; i < WriteTurns::successesBeforeWidening; ++i) {
    EXPECT_EQ(inFlight, 1);
    enter();
    leave(Outcome::stored);
  }
  EXPECT_EQ(inFlight, 2);
}

TEST(RetryPolicy, ShortRetriesAreFewAndSpreadOut) {
  RetryPolicy policy;
  const auto first = policy.waitBeforeRepeating(answer(500), 1);
  const auto second = policy.waitBeforeRepeating(answer(502), 1);
  ASSERT_TRUE(first && second);
  EXPECT_LT(*first + *second, milliseconds(2000));
  EXPECT_EQ(policy.waitBeforeRepeating(answer(500), 1), std::nullopt);
  EXPECT_LT(*RetryPolicy().waitBeforeRepeating(answer(500), 0), *first) << "jitter";
}

TEST(RetryPolicy, OnlyWhatCanPassIsRepeated) {
  for (const long status : {400L, 401L, 403L, 404L, 409L, 501L}) {
    EXPECT_FALSE(RetryPolicy().waitBeforeRepeating(answer(status, 1), 0)) << status;
  }
  HttpResponse failed;
  for (const int code : {CURLE_COULDNT_CONNECT, CURLE_COULDNT_RESOLVE_HOST, CURLE_OPERATION_TIMEDOUT,
                         CURLE_PEER_FAILED_VERIFICATION, CURLE_WRITE_ERROR}) {
    failed.curlCode = code;
    EXPECT_FALSE(RetryPolicy().waitBeforeRepeating(failed, 0)) << code;
  }
  failed.curlCode = CURLE_RECV_ERROR;
  EXPECT_TRUE(RetryPolicy().waitBeforeRepeating(failed, 0));
}

TEST(ErrorReader, CodesTellCasesApart) {
  const auto path = [](const std::string& inner) {
    return R"({"error":{".tag":"path","path":)" + inner + "}}";
  };
  std::string endless = R"({".tag":"path"})";
  for (int level = 0; level < 10; ++level) endless = R"({".tag":"path","path":)" + endless + "}";
  struct Case {
    const char* name;
    long status;
    std::string body;
    int code;
    const char* reason;
  };
  const Case cases[] = {
      {"not found", 409, path(R"({".tag":"not_found"})"), 404, "nothing at this path"},
      {"bare text union", 409, R"({"error":"reset"})", 409, "restarted"},
      {"conflict", 409, path(R"({".tag":"conflict","conflict":{".tag":"file"}})"), 403, "in the way"},
      {"conflict of an upload", 409,
       R"({"error":{".tag":"path","reason":{".tag":"conflict","conflict":{".tag":"file"}}}})", 403,
       "in the way"},
      {"no space", 409, path(R"({".tag":"insufficient_space"})"), 507, "not enough space"},
      {"too many files", 409, R"({"error":{".tag":"too_many_files"}})", 406, "too many files"},
      {"no preview", 409, R"({"error":{".tag":"unsupported_extension"}})", 415, "no preview"},
      {"rate limit as text", 429, "slow down", 503, "asks to wait"},
      {"writes in progress", 409, R"({"error":{".tag":"too_many_write_operations"}})", 503, "in progress"},
      {"token withdrawn", 401, R"({"error":{".tag":"invalid_access_token"}})", 401, "link the account again"},
      {"unknown tag", 409, R"({"error":{".tag":"novel"},"user_message":{"text":"Wait."}})", 409, ": Wait."},
      {"page of a proxy", 502, "<html>", 502, "status 502"},
      {"endless nesting", 409, R"({"error":)" + endless + "}", 409, "status 409"},
      {"wrong shapes", 409, R"({"error":[7],"error_summary":7,"user_message":7})", 409, "status 409"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HttpResponse response = answer(c.status);
    response.body = c.body;
    const NSErrorRef error = errorFromResponse(response, {"load", "/a"});
    EXPECT_EQ(error->code(), c.code);
    EXPECT_NE(error->localizedDescription().find(c.reason), std::string::npos)
        << error->localizedDescription();
  }
}

TEST(ErrorReader, TellsHowLongToWait) {
  HttpResponse response = answer(429);
  response.body = R"({"error":{"reason":{".tag":"too_many_requests"},"retry_after":15}})";
  const auto waited = [&] {
    return as<NSNumber>(errorFromResponse(response, {"load", "/a"})->detail(DBErrorRetryAfterKey))
        ->int64Value();
  };
  EXPECT_EQ(waited(), 15);
  response.retryAfterSeconds = 20;
  EXPECT_EQ(waited(), 20);
}

TEST(ServiceText, IsFitToBeShown) {
  struct Case {
    const char* name;
    std::string text;
    std::string shown;
  };
  std::string accents;
  for (int i = 0; i < 301; ++i) accents += "\xC3\xA9";
  const std::string code = "aB3dE5fG7hJ9kL1mN3pQ5rS7";
  const Case cases[] = {
      {"plain", "Your account is full. See https://www.example.com/help/9104", ""},
      {"not ASCII", "Kein Zutritt f\u00fcr \u4e2d\U0001F600", ""},
      {"terminal", "a\x1b[31m\r\nb\x7f\0"s + "c", "a [31m  b  c"},
      {"second control block", "a\xC2\x9B"s + "31mb", "a 31mb"},
      {"direction of writing", "a\u202Eb\u2066c\u200F", "a b c "},
      {"not UTF-8", "a\xff\xC3(\xED\xA0\x80\xF0\x9F", "a  (    "},
      {"bearer", "you sent Bearer abc123", "you sent Bearer ***"},
      {"the service's token", "sl.u.AbC-dEf_0123456789 is old", "*** is old"},
      {"any long code", "rejected (" + code + ")", "rejected (***)"},
      {"code in pieces", "a\u200F" + code, "a ***"},
      {"long words", "Donaudampfschifffahrtsgesellschaft 20240501-1200-backup", ""},
      {"301 characters", accents, accents.substr(0, 600) + "\u2026"},
      {"300 characters", accents.substr(0, 600), ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(serviceText(c.text), c.shown.empty() ? c.text : c.shown) << c.name;
  }
  EXPECT_LT(serviceText(std::string(10'000'000, 'x')).size(), 400U);
}

TEST(ErrorReader, ShowsTextsOfTheServiceOnlyFiltered) {
  HttpResponse response = answer(409);
  response.requestId = "id\x1b";
  response.body =
      R"({"error_summary":"no\u001bvel/","error":{".tag":"novel"},"user_message":{"text":"you sent Bearer s3cr3t\u0007"}})";
  const std::string text = errorFromResponse(response, {"load", "/a"})->userInfo()->description();
  EXPECT_NE(text.find("you sent Bearer *** "), std::string::npos) << text;
  for (const char* part : {"s3cr3t", "\x07", "\x1b"}) EXPECT_EQ(text.find(part), std::string::npos) << text;
}

TEST(ServiceJson, AnswersThatWouldFillTheMemoryAreRefused) {
  struct Case {
    const char* name;
    std::string unit;
    int times;
    bool isTaken;
  };
  const Case cases[] = {
      {"a full page", R"({"name":"x","path_lower":"/x","size":17,"rev":"0123456789"},)", 2000, true},
      {"lists of nothing", "[],", 10'000'000, false},
      {"lists of lists", "[[],[],[],[],[],[],[],[],[],[]],", 1'000'000, false}};
  for (const Case& c : cases) {
    std::string text = R"({"entries":[)";
    text.reserve(text.size() + c.unit.size() * static_cast<std::size_t>(c.times) + 8);
    for (int i = 0; i < c.times; ++i) text += c.unit;
    text += "0]}";
    EXPECT_EQ(servicejson::Document::parse(text) != nullptr, c.isTaken) << c.name;
  }
}

TEST(Tokens, ImpossibleLifetimesAreTakenForTheNearestPossible) {
  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_EQ(expiryAfter(std::nullopt), 0);
  const std::int64_t before = unixNow();
  EXPECT_GE(expiryAfter(14400), before + 14400);
  EXPECT_LE(expiryAfter(Limits::max()), unixNow() + servicelimits::tokenLifetimeSeconds);
  EXPECT_GE(expiryAfter(Limits::max()), before + servicelimits::tokenLifetimeSeconds);
  EXPECT_GE(expiryAfter(Limits::min()), before);
  EXPECT_LE(expiryAfter(Limits::min()), unixNow());
}

TEST(ErrorReader, QuotesNothingThatMightBeSecret) {
  HttpResponse response = answer(400);
  response.body =
      "Error in call to API function \"x\": HTTP header \"Authorization\": bad value Bearer sl.secret";
  const NSErrorRef error = errorFromResponse(response, {"load", "/a"});
  EXPECT_EQ(error->userInfo()->description().find("sl.secret"), std::string::npos);
}

}  // namespace

}  // namespace kzv::sdk
