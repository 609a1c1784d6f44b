// What every call has in common: forms of requests, statuses, headers, the order of checks.

#include <set>

#include <gtest/gtest.h>

#include "service/ServiceTestClient.h"

namespace kzv::service::testing {
namespace {

struct FormCase {
  const char* name;
  const char* route;
  std::vector<std::string> headers;
  std::string body;
  long status;
  /// Part of the answer's body.
  const char* says;
};

const std::string kBearer = std::string("Authorization: Bearer ") + kToken;
const std::string kJson = "Content-Type: application/json";
const std::string kOctets = "Content-Type: application/octet-stream";

class RequestForm : public ::testing::Test {
 protected:
  static TestService& service() {
    static TestService instance;
    return instance;
  }
  static void check(const std::vector<FormCase>& rows) {
    for (const FormCase& row : rows) {
      SCOPED_TRACE(row.name);
      HttpCall call;
      call.target = row.route;
      call.headers = row.headers;
      call.body = row.body;
      const Answer answer = service().send(call);
      EXPECT_EQ(answer.status, row.status) << answer.body;
      EXPECT_NE(answer.body.find(row.says), std::string::npos) << answer.body;
    }
  }
};

TEST_F(RequestForm, ContentTypesAreTakenLiterally) {
  const std::string none = "Content-Type:";
  check({
      {"json", "/2/files/list_folder", {kBearer, kJson}, "{\"path\":\"\"}", 200, "entries"},
      {"json with charset",
       "/2/files/list_folder",
       {kBearer, kJson + "; charset=utf-8"},
       "{\"path\":\"\"}",
       200,
       "entries"},
      {"plain text of browsers",
       "/2/files/list_folder",
       {kBearer, "Content-Type: text/plain; charset=dropbox-cors-hack"},
       "{\"path\":\"\"}",
       200,
       "entries"},
      {"form, as curl sends by itself",
       "/2/files/list_folder",
       {kBearer},
       "{\"path\":\"\"}",
       400,
       "Content-Type"},
      {"missing", "/2/files/list_folder", {kBearer, none}, "{\"path\":\"\"}", 400, "Content-Type"},
      {"json for an upload",
       "/2/files/upload",
       {kBearer, kJson, "Dropbox-API-Arg: {\"path\":\"/a\"}"},
       "x",
       400,
       "Content-Type"},
      {"form for a download",
       "/2/files/download",
       {kBearer, "Content-Type: application/x-www-form-urlencoded", "Dropbox-API-Arg: {\"path\":\"/a\"}"},
       "",
       400,
       "Content-Type"},
      {"download without",
       "/2/files/download",
       {kBearer, none, "Dropbox-API-Arg: {\"path\":\"/a\"}"},
       "",
       409,
       "not_found"},
      {"no argument, no type", "/2/users/get_current_account", {kBearer, none}, "", 200, "account_id"},
      {"no argument, null", "/2/users/get_current_account", {kBearer, kJson}, "null", 200, "account_id"},
      {"no argument, object",
       "/2/users/get_current_account",
       {kBearer, kJson},
       "{}",
       400,
       "get_current_account"},
  });
}

TEST_F(RequestForm, ArgumentsAreCheckedStrictly) {
  const std::vector<std::string> rpc{kBearer, kJson};
  const char* list = "/2/files/list_folder";
  const char* meta = "/2/files/get_metadata";
  check({
      {"not JSON", list, rpc, "{", 400, "could not decode"},
      {"empty body", list, rpc, "", 400, "could not decode"},
      {"no object", list, rpc, "[]", 400, "expected object"},
      {"missing path", list, rpc, "{}", 400, "missing required field 'path'"},
      {"path of another type", list, rpc, R"({"path":7})", 400, "path: expected string"},
      {"null path", list, rpc, R"({"path":null})", 400, "path: expected string"},
      {"root as slash", list, rpc, R"({"path":"/"})", 400, "empty string rather than"},
      {"relative path", list, rpc, R"({"path":"a"})", 400, "did not match pattern"},
      {"limit too small", list, rpc, R"({"path":"","limit":0})", 400, "limit"},
      {"limit too large", list, rpc, R"({"path":"","limit":2001})", 400, "limit"},
      {"largest limit", list, rpc, R"({"path":"","limit":2000})", 200, "entries"},
      {"nullable limit", list, rpc, R"({"path":"","limit":null})", 200, "entries"},
      {"limit of another type", list, rpc, R"({"path":"","limit":"5"})", 400, "limit"},
      {"flag of another type", list, rpc, R"({"path":"","recursive":"yes"})", 400, "recursive"},
      {"null flag", list, rpc, R"({"path":"","recursive":null})", 400, "recursive"},
      {"unknown field", list, rpc, R"({"path":"","colour":1})", 200, "entries"},
      {"lone surrogate", list, rpc, R"({"path":"/\ud800"})", 400, "could not decode"},
      {"metadata of the root", meta, rpc, R"({"path":""})", 400, "pattern"},
      {"metadata of slash", meta, rpc, R"({"path":"/"})", 400, "root"},
      {"short revision", meta, rpc, R"({"path":"rev:12345678"})", 400, "pattern"},
      {"unknown revision", meta, rpc, R"({"path":"rev:0123456789"})", 409, "not_found"},
      {"unknown id", meta, rpc, R"({"path":"id:AAAAAAAAAAAAAAAAAAAAAA"})", 409, "not_found"},
      {"foreign namespace", meta, rpc, R"({"path":"ns:1/a"})", 409, "not_found"},
      {"malformed path", meta, rpc, R"({"path":"/a/"})", 409, "malformed_path"},
      {"missing folder", list, rpc, R"({"path":"/none"})", 409, "not_found"},
      {"mode without revision",
       "/2/files/upload",
       {kBearer, kOctets, R"(Dropbox-API-Arg: {"path":"/a","mode":"update"})"},
       "",
       400,
       "mode"},
      {"mode unknown",
       "/2/files/upload",
       {kBearer, kOctets, R"(Dropbox-API-Arg: {"path":"/a","mode":"replace"})"},
       "",
       400,
       "mode"},
      {"time with fractions",
       "/2/files/upload",
       {kBearer, kOctets, R"(Dropbox-API-Arg: {"path":"/a","client_modified":"2024-05-01T09:30:00.5Z"})"},
       "",
       400,
       "client_modified"},
      {"hash too short",
       "/2/files/upload",
       {kBearer, kOctets, R"(Dropbox-API-Arg: {"path":"/a","content_hash":"abc"})"},
       "",
       400,
       "content_hash"},
      {"no argument header", "/2/files/upload", {kBearer, kOctets}, "", 400, "Dropbox-API-Arg"},
      {"negative offset",
       "/2/files/upload_session/append_v2",
       {kBearer, kOctets, R"(Dropbox-API-Arg: {"cursor":{"session_id":"x","offset":-1}})"},
       "",
       400,
       "cursor.offset"},
      {"write path as id", "/2/files/create_folder_v2", rpc, R"({"path":"id:abc"})", 400, "pattern"},
      {"cursor that never was", "/2/files/list_folder/continue", rpc, R"({"cursor":"AAabc"})", 400, "cursor"},
      {"longpoll too short",
       "/2/files/list_folder/longpoll",
       {kJson},
       R"({"cursor":"AAabc","timeout":29})",
       400,
       "timeout"},
      {"thumbnail size unknown",
       "/2/files/get_thumbnail_v2",
       {kBearer,
        "Content-Type:", R"(Dropbox-API-Arg: {"resource":{".tag":"path","path":"/a"},"size":"w1h1"})"},
       "",
       400,
       "size"},
  });
}

TEST_F(RequestForm, AuthorizationIsCheckedAfterTheForm) {
  const std::string body = R"({"path":""})";
  check({
      {"none", "/2/files/list_folder", {kJson}, body, 400, "Authorization"},
      {"other scheme",
       "/2/files/list_folder",
       {kJson, "Authorization: Basic YTpi"},
       body,
       400,
       "Authorization"},
      {"empty bearer", "/2/files/list_folder", {kJson, "Authorization: Bearer "}, body, 400, "Authorization"},
      {"bearer with blanks",
       "/2/files/list_folder",
       {kJson, "Authorization: Bearer a b"},
       body,
       400,
       "Authorization"},
      {"unknown token",
       "/2/files/list_folder",
       {kJson, "Authorization: Bearer nobody"},
       body,
       401,
       "invalid_access_token"},
      {"bad argument comes first",
       "/2/files/list_folder",
       {kJson, "Authorization: Bearer nobody"},
       "{}",
       400,
       "path"},
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
  const std::string body = R"({"path":"/none"})";
  const auto root = [](const char* value) { return std::string("Dropbox-API-Path-Root: ") + value; };
  check({
      {"home", "/2/files/list_folder", {kBearer, kJson, root(R"({".tag":"home"})")}, body, 409, "not_found"},
      {"own root",
       "/2/files/list_folder",
       {kBearer, kJson, root(R"({".tag":"root","root":"4711001"})")},
       body,
       409,
       "not_found"},
      {"other root",
       "/2/files/list_folder",
       {kBearer, kJson, root(R"({".tag":"root","root":"9"})")},
       body,
       422,
       R"("invalid_root":{".tag":"user","root_namespace_id":"4711001")"},
      {"foreign namespace",
       "/2/files/list_folder",
       {kBearer, kJson, root(R"({".tag":"namespace_id","namespace_id":"9"})")},
       body,
       422,
       "no_permission"},
      {"not JSON", "/2/files/list_folder", {kBearer, kJson, root("home")}, body, 400, "Path-Root"},
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
  HttpCall call;
  call.target = "/2/files/upload";
  call.headers = {kBearer, kOctets, R"(Dropbox-API-Arg: {"path":"/chunked.bin","mode":"overwrite"})",
                  "Expect: 100-continue"};
  call.body = std::string(300000, 'x');
  call.chunkBytes = 7777;
  const Answer answer = service().send(call);
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
  HttpCall call;
  call.method = "GET";
  call.target = "/admin/requests";
  EXPECT_EQ(TestService({}, true).send(call).status, 200);
  EXPECT_EQ(TestService({}, false).send(call).status, 404);
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
  HttpCall token;
  token.target = "/oauth2/token";
  token.headers = {"Content-Type: application/x-www-form-urlencoded"};
  token.body = "grant_type=refresh_token&refresh_token=hush-hush&client_id=key&client_secret=s3cret";
  service.send(token);
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
}  // namespace kzv::service::testing
