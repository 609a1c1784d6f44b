#include "standin/faults/FaultRun.h"

#include <atomic>
#include <memory>

#include <fmt/format.h>

#include "standin/api/ApiError.h"

namespace kzv::standin {
namespace {

// The service's own answer with this status.
HttpResponse ordinaryFailure(int status, std::int64_t retryAfter) {
  try {
    if (status == 429) failRateLimited("too_many_requests", retryAfter);
    if (status == 401) failWithTags(401, {"expired_access_token"});
  } catch (const ApiError& error) {
    return error.response();
  }
  return textResponse(status, fmt::format("Injected failure with status {}.", status));
}

HttpResponse failureResponse(const FaultOrder& order) {
  HttpResponse response;
  response.status = order.status.value_or(429);
  response.body = order.body;
  response.contentType = order.contentType;
  if (order.body.empty()) response = ordinaryFailure(response.status, order.retryAfterSeconds.value_or(1));
  if (order.retryAfterSeconds) response.headers = {{"Retry-After", std::to_string(*order.retryAfterSeconds)}};
  return response;
}

/// Applies one rule to one exchange.
class FaultRun {
 public:
  FaultRun(Faults& faults, Faults::Claim claim, bool fileIsInRequest)
      : faults_(faults), claim_(std::move(claim)), fileIsInRequest_(fileIsInRequest) {}

  void run(HttpRequest& request, HttpResponse& response, const std::function<void()>& endpoint) {
    if (isDelayOnly()) hit()();
    if (!faults_.delay(claim_)) {
      // The client may have given up, and would not expect a change after the rules were cleared.
      response = textResponse(503, "The injected delay was cancelled; nothing was done.");
      return;
    }
    const auto readBody = request.readBody;
    watchBody(request);
    if (!isCut_ && (order().status || order().retryAfterSeconds)) {
      hit()();
      response = failureResponse(order());
    } else if (!isCut_) {
      endpoint();
    }
    request.readBody = readBody;
    failAnswer(response);
  }

 private:
  const FaultOrder& order() const { return Faults::order(claim_); }

  /// Counts the rule as hit at its first call only. May outlive this object.
  std::function<void()> hit() const {
    return [&faults = faults_, claim = claim_, counted = counted_] {
      if (!counted->exchange(true)) faults.hit(claim);
    };
  }

  bool isDelayOnly() const {
    const FaultOrder& o = order();
    return !o.status && !o.retryAfterSeconds && !o.cutRequestAfter && !o.cutResponseAfter && !o.stallAfter &&
           !o.dropAnswer && o.corrupt == Corruption::none;
  }

  bool corruptsRequest() const {
    return order().corrupt == Corruption::request ||
           (order().corrupt == Corruption::file && fileIsInRequest_);
  }
  bool corruptsResponse() const {
    return order().corrupt == Corruption::response ||
           (order().corrupt == Corruption::file && !fileIsInRequest_);
  }

  bool hasReachedCut(const HttpRequest& request) const {
    return order().cutRequestAfter && request.transfer->bytesIn >= *order().cutRequestAfter;
  }

  void watchBody(HttpRequest& request) {
    // The argument of an RPC call was read before.
    isCut_ = hasReachedCut(request);
    request.readBody = [this, &request, readBody = request.readBody](const BodySink& sink) {
      return readBody([&](std::string_view bytes) {
        isCut_ = hasReachedCut(request);
        if (isCut_) return false;
        if (isFlipped_ || !corruptsRequest()) return sink(bytes);
        isFlipped_ = true;
        hit()();
        std::string flipped(bytes);
        flipped[flipped.size() / 2] ^= 0x01;
        return sink(flipped);
      });
    };
  }

  void failAnswer(HttpResponse& response) const {
    if (order().dropAnswer || isCut_) {
      hit()();
      response.fault = AnswerFault{true, {}};
      return;
    }
    // A position at or beyond the end is never reached.
    const std::uint64_t end = response.sizeBytes();
    const std::uint64_t resetAt = order().cutResponseAfter.value_or(end);
    const std::uint64_t stallAt = order().stallAfter.value_or(end);
    const std::uint64_t flipAt = corruptsResponse() ? end / 2 : end;
    const std::uint64_t stopAt = std::min(resetAt, stallAt);
    if (std::min(stopAt, flipAt) >= end) return;
    const auto onPiece = [=, hit = hit()](std::uint64_t offset, std::string& piece) {
      if (flipAt >= offset && flipAt < std::min(offset + piece.size(), end)) {
        hit();
        piece[static_cast<std::size_t>(flipAt - offset)] ^= 0x01;
      }
      if (stopAt >= offset + piece.size()) return AfterPiece::proceed;
      hit();
      piece.resize(static_cast<std::size_t>(stopAt - offset));
      return stopAt == resetAt ? AfterPiece::reset : AfterPiece::stall;
    };
    response.fault = AnswerFault{false, onPiece};
  }

  Faults& faults_;
  const Faults::Claim claim_;
  const bool fileIsInRequest_;
  bool isCut_ = false;
  bool isFlipped_ = false;
  const std::shared_ptr<std::atomic<bool>> counted_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace

void withFaults(Faults& faults, const std::string& route, bool fileIsInRequest, HttpRequest& request,
                HttpResponse& response, const std::function<void()>& endpoint) {
  auto claim = faults.claim(route);
  if (!claim) {
    endpoint();
    return;
  }
  FaultRun(faults, std::move(claim), fileIsInRequest).run(request, response, endpoint);
}

}  // namespace kzv::standin
