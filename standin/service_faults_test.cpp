// Injected failures happen as ordered, and are counted only when they happened.

#include <algorithm>
#include <boost/json.hpp>
#include <chrono>
#include <future>
#include <thread>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "standin/ServiceTestClient.h"

namespace kzv::standin::testing {
namespace {

using Hits = std::vector<std::int64_t>;

class OrderedFaults : public ::testing::Test {
 protected:
  OrderedFaults() { service_.upload("files/upload", R"({"path":"/f.bin"})", std::string(1000000, 'x')); }
  void order(const std::string& rules) { service_.admin("POST", "faults", rules); }
  Answer get() { return service_.download(R"({"path":"/f.bin"})"); }
  Answer put(const std::string& path) {
    return service_.upload("files/upload", object("path", path), std::string(500000, 'y'));
  }
  bool exists(const std::string& path) {
    return service_.rpc("files/get_metadata", object("path", path)).status == 200;
  }

  TestService service_;
};

TEST_F(OrderedFaults, StatusComesWithBodyAndRetryAfter) {
  order(R"([{"route":"files/download","status":429,"retry_after":7},
            {"route":"files/download","status":503,"body":"<html>busy</html>","content_type":"text/html"},
            {"route":"files/download","status":500,"body":{"odd":1}}])");
  const Answer limited = get();
  EXPECT_EQ(limited.status, 429);
  EXPECT_EQ(limited.headers.at("retry-after"), "7");
  EXPECT_EQ(at(limited.json(), "error.reason..tag"), "too_many_requests");
  EXPECT_EQ(at(limited.json(), "error.retry_after"), "7");
  const Answer busy = get();
  EXPECT_EQ(busy.status, 503);
  EXPECT_EQ(busy.body, "<html>busy</html>");
  EXPECT_EQ(busy.headers.at("content-type"), "text/html");
  EXPECT_EQ(busy.headers.count("retry-after"), 0U);
  EXPECT_EQ(get().headers.at("content-type"), "application/json");
  EXPECT_EQ(get().status, 200);
  EXPECT_EQ(service_.faultHits(), (Hits{1, 1, 1}));
}

TEST_F(OrderedFaults, AfterTimesAndEveryChooseTheRequests) {
  order(R"([{"route":"files/download","after":1,"times":2,"status":500}])");
  EXPECT_EQ((std::vector<long>{get().status, get().status, get().status, get().status}),
            (std::vector<long>{200, 500, 500, 200}));
  service_.admin("DELETE", "faults");
  order(R"([{"route":"*","every":3,"status":500}])");
  std::vector<long> statuses;
  for (int i = 0; i < 6; ++i) statuses.push_back(service_.rpc("users/get_current_account", "null").status);
  EXPECT_EQ(statuses, (std::vector<long>{200, 200, 500, 200, 200, 500}));
}

TEST_F(OrderedFaults, OtherRoutesAndRefusedCallsDoNotUseThemUp) {
  order(R"([{"route":"files/download","status":500}])");
  EXPECT_EQ(service_.rpc("files/list_folder", R"({"path":""})").status, 200);
  EXPECT_EQ(service_.download("{}").status, 400);
  EXPECT_EQ(service_.faultHits(), Hits{0});
  EXPECT_EQ(get().status, 500);
}

TEST_F(OrderedFaults, CutAnswerDeliversExactlyTheOrderedBytes) {
  for (const std::size_t bytes : {std::size_t{0}, std::size_t{1}, std::size_t{262144}, std::size_t{700001}}) {
    SCOPED_TRACE(bytes);
    service_.admin("DELETE", "faults");
    order(R"([{"route":"files/download","cut_response_after":)" + std::to_string(bytes) + "}]");
    const Answer answer = get();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.curlResult, CURLE_RECV_ERROR)
        << "a reset, not an early end: " << curl_easy_strerror(static_cast<CURLcode>(answer.curlResult));
    EXPECT_EQ(answer.body.size(), bytes);
    EXPECT_EQ(service_.faultHits(), Hits{1});
  }
  service_.admin("DELETE", "faults");
  order(R"([{"route":"files/download","cut_response_after":1000000}])");
  EXPECT_EQ(get().body.size(), 1000000U);
  EXPECT_EQ(service_.faultHits(), Hits{0}) << "a cut beyond the end did not happen";
}

TEST_F(OrderedFaults, CutRequestAppliesNothing) {
  order(
      R"([{"route":"files/upload","cut_request_after":100000},{"route":"files/create_folder_v2","cut_request_after":5}])");
  EXPECT_NE(put("/g.bin").curlResult, CURLE_OK);
  EXPECT_FALSE(exists("/g.bin"));
  EXPECT_NE(service_.rpc("files/create_folder_v2", R"({"path":"/h"})").curlResult, CURLE_OK);
  EXPECT_FALSE(exists("/h"));
  EXPECT_EQ(service_.faultHits(), (Hits{1, 1}));
}

TEST_F(OrderedFaults, DroppedAnswerAppliesTheRequest) {
  order(R"([{"route":"files/upload","drop_answer":true},{"route":"files/delete_v2","drop_answer":true}])");
  const Answer lost = put("/g.bin");
  EXPECT_NE(lost.curlResult, CURLE_OK);
  EXPECT_EQ(lost.status, 0);
  EXPECT_TRUE(exists("/g.bin"));
  EXPECT_NE(service_.rpc("files/delete_v2", R"({"path":"/g.bin"})").curlResult, CURLE_OK);
  EXPECT_FALSE(exists("/g.bin"));
  EXPECT_EQ(service_.faultHits(), (Hits{1, 1}));
}

TEST_F(OrderedFaults, CorruptionFlipsOneByteOfTheFile) {
  order(R"([{"route":"files/download","corrupt":true},{"route":"files/upload","corrupt":true}])");
  const Answer answer = get();
  ASSERT_EQ(answer.body.size(), 1000000U);
  EXPECT_EQ(std::count_if(answer.body.begin(), answer.body.end(), [](char c) { return c != 'x'; }), 1);
  const std::string hash = "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358";  // of "abc"
  const std::string argument = R"({"path":"/abc","content_hash":")" + hash + "\"}";
  EXPECT_EQ(service_.upload("files/upload", argument, "abc").errorTags(), "content_hash_mismatch");
  EXPECT_EQ(service_.upload("files/upload", argument, "abc").status, 200);
  EXPECT_EQ(service_.faultHits(), (Hits{1, 1}));
}

TEST_F(OrderedFaults, StallHoldsTheAnswerUntilTheClientDisconnects) {
  order(R"([{"route":"files/download","stall_after":1000}])");
  const Answer answer = service_.send({.target = "/2/files/download",
                                       .headers = {std::string("Authorization: Bearer ") + kToken,
                                                   R"(Dropbox-API-Arg: {"path":"/f.bin"})", "Content-Type:"},
                                       .timeoutMs = 500});
  EXPECT_EQ(answer.curlResult, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(answer.body.size(), 1000U);
  EXPECT_EQ(service_.faultHits(), Hits{1});
  EXPECT_EQ(get().status, 200);
}

TEST_F(OrderedFaults, ADelayEndsWithItsRule) {
  order(R"([{"route":"files/download","delay_ms":600000}])");
  auto waiting = std::async(std::launch::async, [this] { return get(); });
  while (service_.faultHits() != Hits{1}) std::this_thread::yield();
  service_.admin("DELETE", "faults");
  const bool ended = waiting.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  service_.service().stop();  // else the test would hang here
  ASSERT_TRUE(ended);
  EXPECT_EQ(waiting.get().status, 503) << "not carried out";
}

TEST_F(OrderedFaults, DelaysBlockNoOtherRequest) {
  order(R"([{"route":"files/download","times":100,"delay_ms":600000}])");
  std::vector<std::future<Answer>> waiting;
  for (int i = 0; i < 80; ++i) waiting.push_back(std::async(std::launch::async, [this] { return get(); }));
  while (service_.faultHits() != Hits{80}) std::this_thread::yield();
  EXPECT_EQ(service_.rpc("files/list_folder", R"({"path":""})").status, 200);
  service_.service().stop();  // also ends the delays
  for (auto& answer : waiting)
    EXPECT_EQ(answer.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(OrderedFaults, ReachTheTokenRoute) {
  order(R"([{"route":"oauth2/token","status":503}])");
  EXPECT_EQ(service_.send({.target = "/oauth2/token"}).status, 503);
}

TEST_F(OrderedFaults, LogRecordsBytesAndStatus) {
  service_.admin("DELETE", "requests");
  get();
  put("/g.bin");
  order(R"([{"route":"files/download","cut_response_after":10}])");
  get();
  const auto log = service_.admin("GET", "requests");
  EXPECT_EQ(at(log, "0.bytes_out"), "1000000");
  EXPECT_EQ(at(log, "1.bytes_in"), "500000");
  EXPECT_EQ(at(log, "2.bytes_out"), "10");
}

}  // namespace
}  // namespace kzv::standin::testing
