#include "testing/HttpClient.h"

#include <memory>

#include <curl/curl.h>

namespace {
std::size_t append(char* bytes, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(bytes, size * count);
  return size * count;
}
}  // namespace

HttpClient::HttpClient() : handle_(curl_easy_init()) {}
HttpClient::~HttpClient() { curl_easy_cleanup(handle_); }

HttpClient::Answer HttpClient::get(const std::string& url) {
  curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
  return perform(url, {});
}

HttpClient::Answer HttpClient::post(const std::string& url, const std::string& body,
                                    const std::vector<std::string>& headers) {
  curl_easy_setopt(handle_, CURLOPT_POST, 1L);
  curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.data());
  return perform(url, headers);
}

HttpClient::Answer HttpClient::remove(const std::string& url) {
  curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, "DELETE");
  const Answer answer = perform(url, {});
  curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, nullptr);
  return answer;
}

HttpClient::Answer HttpClient::perform(const std::string& url, const std::vector<std::string>& headers) {
  curl_slist* list = nullptr;
  for (const std::string& header : headers) list = curl_slist_append(list, header.c_str());
  const std::unique_ptr<curl_slist, void (*)(curl_slist*)> owned(list, curl_slist_free_all);
  Answer answer;
  curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle_, CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &answer.body);
  if (curl_easy_perform(handle_) == CURLE_OK)
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &answer.status);
  return answer;
}
