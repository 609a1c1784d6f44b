#include "standin/faults/FaultOrder.h"

#include <boost/json.hpp>

#include "standin/api/ArgReader.h"
#include "standin/api/JsonWriter.h"

namespace kzv::standin {
namespace {

constexpr std::uint64_t kNoLimit = 1ULL << 62;
constexpr std::uint64_t kMaxDelayMs = 3600000;

std::optional<std::uint64_t> count(const ArgReader& reader, std::string_view field) {
  return reader.optionalUnsigned(field, 0, kNoLimit);
}

void readBody(const ArgReader& reader, FaultOrder& order) {
  if (const boost::json::value* body = reader.raw("body")) {
    order.contentType = body->is_string() ? "text/plain; charset=utf-8" : "application/json";
    order.body = body->is_string() ? reader.requiredString("body") : boost::json::serialize(*body);
  }
  if (const auto type = reader.optionalString("content_type")) order.contentType = *type;
}

Corruption readCorruption(const ArgReader& reader) {
  const boost::json::value* value = reader.raw("corrupt");
  if (!value) return Corruption::none;
  if (value->is_bool()) return value->get_bool() ? Corruption::file : Corruption::none;
  return reader.tag("corrupt", {"request", "response"}, "") == "request" ? Corruption::request
                                                                         : Corruption::response;
}

void writeCount(JsonWriter& json, std::string_view name, const std::optional<std::uint64_t>& value) {
  if (value) json.field(name, static_cast<std::int64_t>(*value));
}

}  // namespace

FaultOrder readFaultOrder(const ArgReader& reader) {
  FaultOrder order;
  order.route = reader.requiredString("route");
  order.after = count(reader, "after").value_or(0);
  const auto every = reader.optionalUnsigned("every", 1, kNoLimit);
  order.every = every.value_or(1);
  order.times = count(reader, "times").value_or(every ? 0 : 1);
  order.delayMs = static_cast<std::int64_t>(reader.optionalUnsigned("delay_ms", 0, kMaxDelayMs).value_or(0));
  if (const auto status = reader.optionalUnsigned("status", 200, 599))
    order.status = static_cast<int>(*status);
  readBody(reader, order);
  if (const auto seconds = count(reader, "retry_after"))
    order.retryAfterSeconds = static_cast<std::int64_t>(*seconds);
  order.cutRequestAfter = count(reader, "cut_request_after");
  order.cutResponseAfter = count(reader, "cut_response_after");
  order.stallAfter = count(reader, "stall_after");
  order.dropAnswer = reader.boolean("drop_answer", false);
  order.corrupt = readCorruption(reader);
  reader.done();
  return order;
}

void writeFaultOrder(JsonWriter& json, const FaultOrder& order) {
  json.field("route", order.route).field("after", static_cast<std::int64_t>(order.after));
  json.field("times", static_cast<std::int64_t>(order.times))
      .field("every", static_cast<std::int64_t>(order.every));
  if (order.delayMs > 0) json.field("delay_ms", order.delayMs);
  if (order.status) json.field("status", std::int64_t{*order.status});
  if (order.retryAfterSeconds) json.field("retry_after", *order.retryAfterSeconds);
  writeCount(json, "cut_request_after", order.cutRequestAfter);
  writeCount(json, "cut_response_after", order.cutResponseAfter);
  writeCount(json, "stall_after", order.stallAfter);
  if (order.dropAnswer) json.field("drop_answer", true);
  constexpr const char* corruptions[] = {"none", "request", "response", "file"};
  if (order.corrupt != Corruption::none)
    json.field("corrupt", corruptions[static_cast<std::size_t>(order.corrupt)]);
}

}  // namespace kzv::standin
