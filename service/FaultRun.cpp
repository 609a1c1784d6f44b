#include "service/FaultRun.h"

#include <fmt/format.h>

#include "service/ApiError.h"

namespace kzv::service {
namespace {

// What the service itself would say with this status.
HttpResponse ordinaryFailure(int status, std::int64_t retryAfter) {
  try {
    if (status == 429) failRateLimited("too_many_requests", retryAfter);
    if (status == 401) failWithTags(401, {"expired_access_token"});
  } catch (const ApiError& error) {
    return error.response();
  }
  return textResponse(status, fmt::format("The service answers {} by order.", status));
}

HttpResponse faultResponse(const FaultOrder& order) {
  const int status = order.status.value_or(429);
  HttpResponse response;
  response.status = status;
  response.body = order.body;
  response.contentType = order.contentType;
  if (order.body.empty()) response = ordinaryFailure(status, order.retryAfterSeconds.value_or(1));
  if (order.retryAfterSeconds) {
    response.headers = {{"Retry-After", std::to_string(*order.retryAfterSeconds)}};
  }
  return response;
}

}  // namespace

std::function<void()> FaultRun::hit() {
  return [&faults = faults_, claim = claim_, counted = counted_] {
    if (!counted->exchange(true)) faults.hit(claim);
  };
}

void FaultRun::begin() {
  const FaultOrder& o = order();
  const bool delaysOnly = !o.status && !o.retryAfterSeconds && !o.cutRequestAfter && !o.cutResponseAfter &&
                          !o.stallAfter && !o.dropAnswer && o.corrupt == Corruption::none;
  if (delaysOnly) hit()();
  isDelayCutShort_ = !faults_.delay(claim_);
}

bool FaultRun::reachedCut(const HttpRequest& request) const {
  return order().cutRequestAfter && request.transfer->bytesIn >= *order().cutRequestAfter;
}

// "content" is the file's bytes, which travel up or down with the route.
bool FaultRun::corrupts(Corruption side) const {
  const Corruption content = style_ == RouteStyle::upload ? Corruption::request : Corruption::response;
  return order().corrupt == side || (order().corrupt == Corruption::content && content == side);
}

void FaultRun::watch(HttpRequest& request) {
  readOn_ = request.readBody;
  // The argument of a call in rpc style has been read already.
  cut_ = reachedCut(request);
  request.readBody = [this, &request](const std::function<bool(std::string_view)>& sink) {
    return readOn_([&](std::string_view bytes) {
      cut_ = reachedCut(request);
      if (cut_) return false;
      if (flipped_ || !corrupts(Corruption::request)) return sink(bytes);
      flipped_ = true;
      hit()();
      std::string spoilt(bytes);
      spoilt[spoilt.size() / 2] ^= 0x01;
      return sink(spoilt);
    });
  };
}

void FaultRun::unwatch(HttpRequest& request) { request.readBody = readOn_; }

std::optional<HttpResponse> FaultRun::answerInstead() {
  // Often nobody waits for it any more; applied now, it would be a surprise to whoever cleared the rules.
  if (isDelayCutShort_) return textResponse(503, "The ordered delay was cancelled; nothing was done.");
  if (cut_ || (!order().status && !order().retryAfterSeconds)) return std::nullopt;
  hit()();
  return faultResponse(order());
}

void FaultRun::spoil(HttpResponse& response) {
  AnswerFault fault;
  fault.happened = hit();
  fault.dropAnswer = order().dropAnswer || cut_;
  fault.resetAfter = order().cutResponseAfter;
  fault.stallAfter = order().stallAfter;
  const std::uint64_t size = response.stream ? response.stream->sizeBytes : response.body.size();
  if (corrupts(Corruption::response) && size > 0) fault.flipAt = size / 2;
  if (fault.dropAnswer || fault.resetAfter || fault.stallAfter || fault.flipAt)
    response.fault = std::move(fault);
}

}  // namespace kzv::service
