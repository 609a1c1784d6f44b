#pragma once
#include <string>
#include <vector>

/// A bare HTTP client for tests: one connection, no retries. One thread at a time; blocks, at most 30 s a
/// request.
class HttpClient {
 public:
  struct Answer {
    long status = 0;  // 0: no answer
    std::string body;
  };
  HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;
  ~HttpClient();

  Answer get(const std::string& url);
  Answer post(const std::string& url, const std::string& body, const std::vector<std::string>& headers);
  Answer remove(const std::string& url);

 private:
  Answer perform(const std::string& url, const std::vector<std::string>& headers);
  void* const handle_;
};
