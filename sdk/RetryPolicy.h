#pragma once
#include <chrono>
#include <optional>

#include "sdk/HttpRequest.h"

/// Decides whether one request is sent again, and when. For requests only that may be carried out twice
/// without harm. Two budgets: waits that the service asks for (429 or 503 with Retry-After), and a few short
/// ones of our own for what passes by itself (a cut connection, 500, 502, 504, or 429 and 503 without a
/// time). A damaged body may use up all tries: each of them costs a transfer, but the service is well.
class RetryPolicy {
 public:
  static constexpr int maxTries = 5;
  static constexpr std::chrono::seconds maxWaitAsTold{300};
  static constexpr int maxShortRetries = 2;
  static constexpr std::chrono::milliseconds waitAfterDamage{100};

  /// @param jitter  0 to 1, so that many clients do not come back at the same moment.
  /// @return how long to wait before the request is sent again, or nothing: the outcome stands.
  std::optional<std::chrono::milliseconds> waitBeforeRepeating(const HttpResponse& response, double jitter);

 private:
  std::optional<std::chrono::milliseconds> waitAsTold(std::chrono::seconds told);
  std::optional<std::chrono::milliseconds> shortWait(double jitter);

  int tries_ = 1;
  int shortRetries_ = 0;
  std::chrono::seconds waitedAsTold_{0};
};
