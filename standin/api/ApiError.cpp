#include "standin/api/ApiError.h"

#include <atomic>

#include "standin/api/JsonWriter.h"

namespace kzv::standin {
namespace {

std::string joined(const Tags& tags) {
  std::string text;
  for (const auto tag : tags) {
    text += tag;
    text += '/';
  }
  return text;
}

}  // namespace

HttpResponse jsonResponse(int status, std::string json) {
  HttpResponse response;
  response.status = status;
  response.contentType = "application/json";
  response.body = std::move(json);
  return response;
}

HttpResponse textResponse(int status, std::string text) {
  HttpResponse response;
  response.status = status;
  response.contentType = "text/plain; charset=utf-8";
  response.body = std::move(text);
  return response;
}

std::string nestedTags(const Tags& tags) {
  JsonWriter json;
  std::size_t depth = 0;
  for (const auto tag : tags) {
    ++depth;
    json.beginObject().field(".tag", tag);
    if (depth < tags.size()) json.key(tag);
  }
  while (depth-- > 0) json.endObject();
  return json.take();
}

std::string errorSummary(const Tags& tags) {
  static std::atomic<unsigned> calls{0};
  return joined(tags) + std::string(calls++ % 4, '.');
}

void failWithTags(int status, const Tags& tags) {
  JsonWriter json;
  json.beginObject()
      .field("error_summary", errorSummary(tags))
      .key("error")
      .raw(nestedTags(tags))
      .endObject();
  throw ApiError(jsonResponse(status, json.take()));
}

void failEndpoint(const Tags& tags) { failWithTags(409, tags); }

void failEndpoint(const Tags& summaryTags, std::string_view errorJson) {
  JsonWriter json;
  json.beginObject()
      .field("error_summary", errorSummary(summaryTags))
      .key("error")
      .raw(errorJson)
      .endObject();
  throw ApiError(jsonResponse(409, json.take()));
}

void failRateLimited(std::string_view reason, std::int64_t retryAfterSeconds) {
  JsonWriter json;
  json.beginObject().field("error_summary", errorSummary({reason})).key("error").beginObject();
  json.key("reason")
      .raw(nestedTags({reason}))
      .field("retry_after", retryAfterSeconds)
      .endObject()
      .endObject();
  HttpResponse response = jsonResponse(429, json.take());
  response.headers.emplace_back("Retry-After", std::to_string(retryAfterSeconds));
  throw ApiError(std::move(response));
}

}  // namespace kzv::standin
