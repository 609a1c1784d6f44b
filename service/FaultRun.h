#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "service/Faults.h"
#include "service/Http.h"
#include "service/Routes.h"

namespace kzv::service {

/// One ordered failure carried out on one exchange, from before the endpoint to the last byte of the answer.
/// Counts itself as a hit when it takes place, once. Used by the connection's thread; `faults` and the
/// request outlive it.
class FaultRun {
 public:
  FaultRun(Faults& faults, Faults::Claim claim, RouteStyle style)
      : faults_(faults), claim_(std::move(claim)), style_(style) {}

  /// Blocks for the ordered delay, before anything else. A rule that only delays has happened with this.
  void begin();
  /// Watches the body while the endpoint reads it, to cut or spoil it. Undone by unwatch().
  void watch(HttpRequest& request);
  void unwatch(HttpRequest& request);
  /// The request was cut: the endpoint must not, or did not, apply it.
  bool isCut() const { return cut_; }
  /// The answer to give instead of calling the endpoint, if any.
  std::optional<HttpResponse> answerInstead();
  /// Arranges for the answer to be spoilt while it is sent.
  void spoil(HttpResponse& response);

 private:
  const FaultOrder& order() const { return Faults::order(claim_); }
  bool reachedCut(const HttpRequest& request) const;
  bool corrupts(Corruption side) const;
  std::function<void()> hit();

  Faults& faults_;
  Faults::Claim claim_;
  RouteStyle style_;
  bool cut_ = false;
  bool isDelayCutShort_ = false;
  bool flipped_ = false;
  decltype(HttpRequest::readBody) readOn_;
  std::shared_ptr<std::atomic<bool>> counted_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace kzv::service
