// The form of all calls: requests, statuses, headers, the order of checks.

#include <boost/json.hpp>
#include <set>

#include <gtest/gtest.h>

#include "standin/ServiceTestClient.h"

namespace kzv::standin::testing {
namespace {

const std::string kBearer = std::string("Authorization: Bearer ") + kToken;
const std::string kJson = "Content-Type: application/json";
const std::string kOctets = "Content-Type: application/octet-stream";
constexpr const char* kNoType = "Content-Type:";
constexpr const char* kList = "/2/files/list_folder";
constexpr const char* kMetadata = "/2/files/get_metadata";
constexpr const char* kUpload = "/2/files/upload";
constexpr const char* kWho = "/2/users/get_current_account";

std::string arg(const std::string& json) { return "Dropbox-API-Arg: " + json; }

struct FormCase {
  const char* name;
  const char* route;
  std::vector<std::string> headers;
  std::string body;
  long status;
  const char* says;  // part of the answer's body
};

class RequestForm : public ::testing::Test {
 protected:
  static TestService& service() {
    static TestService instance;
    return instance;
  }
  static void check(const std::vector<FormCase>& rows) {
    for (const FormCase& row : rows) {
      const Answer answer = service().send({.target = row.route, .headers = row.headers, .body = row.body});
      EXPECT_EQ(answer.status, row.status) << row.name << ": " << answer.body;
      EXPECT_NE(answer.body.find(row.says), std::string::npos) << row.name << ": " << answer.body;
    }
  }
};

TEST_F(RequestForm, ContentTypesAreTakenLiterally) {
  const std::string root = R"({"path":""})";
  const std::string browser = "Content-Type: text/plain; charset=dropbox-cors-hack";
  const std::string form = "Content-Type: application/x-www-form-urlencoded";
  const std::string a = arg(R"({"path":"/a"})");
  check({
      {"with charset", kList, {kBearer, kJson + "; charset=utf-8"}, root, 200, "entries"},
      {"plain text of browsers", kList, {kBearer, browser}, root, 200, "entries"},
      {"form, as curl sends by itself", kList, {kBearer}, root, 400, "Content-Type"},
      {"missing", kList, {kBearer, kNoType}, root, 400, "Content-Type"},
      {"json for an upload", kUpload, {kBearer, kJson, a}, "x", 400, "Content-Type"},
      {"form for a download", "/2/files/download", {kBearer, form, a}, "", 400, "Content-Type"},
      {"download without", "/2/files/download", {kBearer, kNoType, a}, "", 409, "not_found"},
      {"no argument, no type", kWho, {kBearer, kNoType}, "", 200, "account_id"},
      {"no argument, null", kWho, {kBearer, kJson}, "null", 200, "account_id"},
      {"no argument, object", kWho, {kBearer, kJson}, "{}", 400, "get_current_account"},
  });
}

TEST_F(RequestForm, ArgumentsAreCheckedStrictly) {
  const std::vector<std::string> rpc{kBearer, kJson};
  const auto upload = [](const char* json) { return std::vector{kBearer, kOctets, arg(json)}; };
  const std::string picture = arg(R"({"resource":{".tag":"path","path":"/a"},"size":"w1h1"})");
  check({
      {"not JSON", kList, rpc, "{", 400, "could not decode"},
      {"empty body", kList, rpc, "", 400, "could not decode"},
      {"no object", kList, rpc, "[]", 400, "expected object"},
      {"missing path", kList, rpc, "{}", 400, "missing required field 'path'"},
      {"path of another type", kList, rpc, R"({"path":7})", 400, "path: expected string"},
      {"root as slash", kList, rpc, R"({"path":"/"})", 400, "empty string rather than"},
      {"relative path", kList, rpc, R"({"path":"a"})", 400, "did not match pattern"},
      {"limit too small", kList, rpc, R"({"path":"","limit":0})", 400, "limit"},
      {"limit too large", kList, rpc, R"({"path":"","limit":2001})", 400, "limit"},
      {"largest limit", kList, rpc, R"({"path":"","limit":2000})", 200, "entries"},
      {"nullable limit", kList, rpc, R"({"path":"","limit":null})", 200, "entries"},
      {"limit of another type", kList, rpc, R"({"path":"","limit":"5"})", 400, "limit"},
      {"flag of another type", kList, rpc, R"({"path":"","recursive":"yes"})", 400, "recursive"},
      {"null flag", kList, rpc, R"({"path":"","recursive":null})", 400, "recursive"},
      {"unknown field", kList, rpc, R"({"path":"","colour":1})", 200, "entries"},
      {"lone surrogate", kList, rpc, R"({"path":"/\ud800"})", 400, "could not decode"},
      {"metadata of the root", kMetadata, rpc, R"({"path":""})", 400, "pattern"},
      {"short revision", kMetadata, rpc, R"({"path":"rev:12345678"})", 400, "pattern"},
      {"unknown revision", kMetadata, rpc, R"({"path":"rev:0123456789"})", 409, "not_found"},
      {"unknown id", kMetadata, rpc, R"({"path":"id:AAAAAAAAAAAAAAAAAAAAAA"})", 409, "not_found"},
      {"foreign namespace", kMetadata, rpc, R"({"path":"ns:1/a"})", 409, "not_found"},
      {"malformed path", kMetadata, rpc, R"({"path":"/a/"})", 409, "malformed_path"},
      {"mode without revision", kUpload, upload(R"({"path":"/a","mode":"update"})"), "", 400, "mode"},
      {"mode unknown", kUpload, upload(R"({"path":"/a","mode":"replace"})"), "", 400, "mode"},
      {"time with fractions", kUpload, upload(R"({"path":"/a","client_modified":"2024-05-01T09:30:00.5Z"})"),
       "", 400, "client_modified"},
      {"hash too short", kUpload, upload(R"({"path":"/a","content_hash":"abc"})"), "", 400, "content_hash"},
      {"no argument header", kUpload, {kBearer, kOctets}, "", 400, "Dropbox-API-Arg"},
      {"negative offset", "/2/files/upload_session/append_v2",
       upload(R"({"cursor":{"session_id":"x","offset":-1}})"), "", 400, "cursor.offset"},
      {"write path as id", "/2/files/create_folder_v2", rpc, R"({"path":"id:abc"})", 400, "pattern"},
      {"cursor that never was", "/2/files/list_folder/continue", rpc, R"({"cursor":"AAabc"})", 400, "cursor"},
      {"longpoll too short",
       "/2/files/list_folder/longpoll",
       {kJson},
       R"({"cursor":"AAabc","timeout":29})",
       400,
       "timeout"},
      {"thumbnail size", "/2/files/get_thumbnail_v2", {kBearer, kNoType, picture}, "", 400, "size"},
  });
}

TEST_F(RequestForm, AuthorizationIsCheckedAfterTheForm) {
  const std::string body = R"({"path":""})";
  const auto by = [](const char* value) {
    return std::vector{kJson, std::string("Authorization: ") + value};
  };
  check({
      {"none", kList, {kJson}, body, 400, "Authorization"},
      {"other scheme", kList, by("Basic YTpi"), body, 400, "Authorization"},
      {"empty bearer", kList, by("Bearer "), body, 400, "Authorization"},
      {"bearer with blanks", kList, by("Bearer a b"), body, 400, "Authorization"},
      {"unknown token", kList, by("Bearer nobody"), body, 401, "invalid_access_token"},
      {"bad argument comes first", kList, by("Bearer nobody"), "{}", 400, "path"},
      {"as URL parameters",
       "/2/files/list_folder?authorization=Bearer%20token-of-ann&arg=%7B%22path%22%3A%22%22%7D",
       {kJson},
       "",
       200,
       "entries"},
      {"where none is taken",
       "/2/files/list_folder/longpoll",
       {kJson, kBearer},
       R"({"cursor":"AAabc"})",
       400,
       "authorization"},
      {"unknown route", "/2/files/frobnicate", {kJson, kBearer}, body, 400, "Unknown API function"},
  });
}

TEST_F(RequestForm, PathRootIsCheckedBeforeTheEndpoint) {
  const std::string none = R"({"path":"/none"})";
  const std::string own = R"("invalid_root":{".tag":"user","root_namespace_id":"4711001")";
  const auto root = [](const char* value) {
    return std::vector{kBearer, kJson, std::string("Dropbox-API-Path-Root: ") + value};
  };
  check({
      {"home", kList, root(R"({".tag":"home"})"), none, 409, "not_found"},
      {"own root", kList, root(R"({".tag":"root","root":"4711001"})"), none, 409, "not_found"},
      {"other root", kList, root(R"({".tag":"root","root":"9"})"), none, 422, own.c_str()},
      {"foreign", kList, root(R"({".tag":"namespace_id","namespace_id":"9"})"), none, 422, "no_permission"},
      {"not JSON", kList, root("home"), none, 400, "Path-Root"},
  });
}

TEST_F(RequestForm, EveryAnswerCarriesTheServicesHeaders) {
  const Answer good = service().rpc("files/list_folder", R"({"path":""})");
  EXPECT_EQ(good.headers.at("content-type"), "application/json");
  const Answer bad = service().rpc("files/list_folder", "{}");
  EXPECT_EQ(bad.headers.at("content-type"), "text/plain; charset=utf-8");
  EXPECT_EQ(bad.body.find("Error in call to API function \"files/list_folder\": request body: "), 0U)
      << bad.body;
  const Answer conflict = service().rpc("files/list_folder", R"({"path":"/none"})");
  EXPECT_EQ(conflict.headers.at("content-type"), "application/json");
  for (const Answer* answer : {&good, &bad, &conflict}) {
    const std::string requestId = answer->headers.at("x-dropbox-request-id");
    EXPECT_EQ(requestId.size(), 32U);
    EXPECT_EQ(requestId.find_first_not_of("0123456789abcdef"), std::string::npos) << requestId;
    EXPECT_EQ(answer->headers.count("date"), 1U);
  }
  EXPECT_NE(good.headers.at("x-dropbox-request-id"), bad.headers.at("x-dropbox-request-id"));
}

TEST_F(RequestForm, SummariesEndInAVaryingNumberOfDots) {
  std::set<std::string> summaries;
  for (int i = 0; i < 8; ++i) {
    summaries.insert(at(service().rpc("files/list_folder", R"({"path":"/none"})").json(), "error_summary"));
  }
  EXPECT_GT(summaries.size(), 1U);
  for (const auto& summary : summaries) EXPECT_EQ(summary.find("path/not_found/"), 0U) << summary;
}

TEST_F(RequestForm, ChunkedBodiesAndContinueAreUnderstood) {
  const Answer answer = service().send(
      {.target = kUpload,
       .headers = {kBearer, kOctets, arg(R"({"path":"/chunked.bin"})"), "Expect: 100-continue"},
       .body = std::string(300000, 'x'),
       .chunkBytes = 7777});
  EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(at(answer.json(), "size"), "300000");
}

TEST(StrictMode, RefusesWhatTheServiceRefuses) {
  ServiceOptions options;
  options.strict = true;
  const TestService strict(options);
  EXPECT_EQ(strict.rpc("files/list_folder", R"({"path":"","colour":1})").status, 400);
  EXPECT_EQ(strict.upload("files/upload", "{\"path\":\"/\xC3\xA9\"}", "x").status, 400);
  EXPECT_EQ(strict.upload("files/upload", R"({"path":"/\u00e9"})", "x").status, 200);
}

TEST(AdminRoutes, AreAbsentUnlessAskedFor) {
  const HttpCall call{.method = "GET", .target = "/admin/requests"};
  EXPECT_EQ(TestService({}, true).send(call).status, 200);
  EXPECT_EQ(TestService({}, false).send(call).status, 404);
}

TEST(AdminRoutes, RefuseRequestsOfWebPages) {
  struct Case {
    const char* name;
    std::vector<std::string> headers;
    int status;
  };
  const std::string json = "Content-Type: application/json";
  const TestService service;
  const std::string own = "127.0.0.1:" + std::to_string(service.port());
  const std::string otherPort = std::to_string(service.port() % 65535 + 1);
  const Case cases[] = {
      {"a tool", {json}, 200},
      {"by another name of this machine", {json, "Host: localhost:" + own.substr(10)}, 200},
      {"its own page", {json, "Origin: http://" + own}, 200},
      {"name of a foreign page", {json, "Host: evil.example:" + own.substr(10)}, 403},
      {"name that begins like ours", {json, "Host: 127.0.0.1.evil.example:" + own.substr(10)}, 403},
      {"port of another service", {json, "Host: 127.0.0.1:" + otherPort}, 403},
      {"no host", {json, "Host:"}, 403},
      {"foreign page", {json, "Origin: http://evil.example"}, 403},
      {"page without an origin", {json, "Origin: null"}, 403},
      {"page of another service", {json, "Origin: http://127.0.0.1:" + otherPort}, 403},
      {"form of a page", {"Content-Type: text/plain"}, 415},
      {"no type", {"Content-Type:"}, 415}};
  for (const Case& c : cases) {
    EXPECT_EQ(service.send({.target = "/admin/settings", .headers = c.headers, .body = "{}"}).status,
              c.status)
        << c.name;
  }
  const HttpCall log{.method = "GET", .target = "/admin/requests", .headers = {"Host: evil.example"}};
  EXPECT_EQ(service.send(log).status, 403);
}

TEST(AdminRoutes, MisspeltOrdersAreRefused) {
  const TestService service;
  EXPECT_THROW(service.admin("POST", "faults", R"([{"route":"*","statsu":500}])"), std::runtime_error);
  EXPECT_THROW(service.admin("POST", "settings", R"({"pagesize":1})"), std::runtime_error);
  EXPECT_THROW(service.admin("POST", "write", R"({"account":"nobody","path":"/a","text":""})"),
               std::runtime_error);
}

TEST(AdminRoutes, RequestLogShowsCallsButNoSecrets) {
  const TestService service;
  service.rpc("files/list_folder", R"({"path":"/None"})");
  service.send(
      {.target = "/oauth2/token",
       .headers = {"Content-Type: application/x-www-form-urlencoded"},
       .body = "grant_type=refresh_token&refresh_token=hush-hush&client_id=key&client_secret=s3cret"});
  const auto log = service.admin("GET", "requests");
  ASSERT_EQ(log.as_array().size(), 2U);
  EXPECT_EQ(at(log, "0.route"), "files/list_folder");
  EXPECT_EQ(at(log, "0.status"), "409");
  EXPECT_EQ(at(log, "0.arg.path"), "/None");
  EXPECT_EQ(at(log, "1.arg.client_id"), "key");
  const std::string text = boost::json::serialize(log);
  for (const char* secret : {"hush-hush", "s3cret", kToken})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
}

}  // namespace
}  // namespace kzv::standin::testing
