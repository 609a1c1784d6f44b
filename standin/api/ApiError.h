#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "standin/http/Http.h"

namespace kzv::standin {

/// Tags of nested unions, outermost first.
using Tags = std::vector<std::string_view>;

/// An answer that is not a success, thrown inside an endpoint and caught by the dispatcher.
class ApiError : public std::exception {
 public:
  explicit ApiError(HttpResponse response) : response_(std::move(response)) {}
  const char* what() const noexcept override { return "API error"; }
  const HttpResponse& response() const { return response_; }

 private:
  HttpResponse response_;
};

/// An invalid argument, status 400; the dispatcher prefixes the function's name and the place.
class BadArgument : public std::exception {
 public:
  explicit BadArgument(std::string detail) : detail_(std::move(detail)) {}
  const char* what() const noexcept override { return detail_.c_str(); }
  const std::string& detail() const { return detail_; }

 private:
  std::string detail_;
};

/// JSON of nested unions: {"path", "conflict", "file"} gives
/// {".tag":"path","path":{".tag":"conflict","conflict":{".tag":"file"}}}.
std::string nestedTags(const Tags& tags);

/// Tags joined with slashes, then a varying number of dots: clients must not compare the whole text.
std::string errorSummary(const Tags& tags);

/// Status `status` with error_summary and the nested tags.
[[noreturn]] void failWithTags(int status, const Tags& tags);
/// The endpoint's own error, status 409.
[[noreturn]] void failEndpoint(const Tags& tags);
/// The same for a union with further fields; `errorJson` is the value of "error".
[[noreturn]] void failEndpoint(const Tags& summaryTags, std::string_view errorJson);
/// Status 429; `reason` is too_many_requests or too_many_write_operations.
[[noreturn]] void failRateLimited(std::string_view reason, std::int64_t retryAfterSeconds);

HttpResponse jsonResponse(int status, std::string json);
HttpResponse textResponse(int status, std::string text);

}  // namespace kzv::standin
