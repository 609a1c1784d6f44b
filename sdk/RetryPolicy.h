#pragma once
#include <chrono>
#include <optional>

#include "sdk/HttpRequest.h"

/// Decides whether one request is sent again, and when. For requests only that may be carried out twice
/// without harm. Three budgets: waits that the service asks for (429 or 503 with Retry-After); waits because
/// another change of the account is in progress, which are many where several devices write; and a few short
/// ones of our own for what passes by itself (a cut connection, 500, 502, 504, or 429 and 503 without a
/// time). A damaged body may use up all tries: each of them costs a transfer, but the service is well. Waits
/// for others and for the service are spread at random, so that requests that were refused together do not
/// return together.
class RetryPolicy {
 public:
  static constexpr int maxTries = 5;
  static constexpr std::chrono::seconds maxWaitAsTold{300};
  static constexpr std::chrono::seconds maxWaitForOthers{300};
  static constexpr int maxShortRetries = 2;
  static constexpr std::chrono::milliseconds waitAfterDamage{100};

  explicit RetryPolicy(int shortRetryLimit = maxShortRetries) : shortRetryLimit_(shortRetryLimit) {}

  /// Whether the service refused a change because another one of the same account is in progress: the tag
  /// too_many_write_operations, with status 429 or 409.
  static bool isContention(const HttpResponse& response);

  /// @param jitter  0 to 1: where in its spread the wait lies.
  /// @return how long to wait before the request is sent again, or nothing: the outcome stands.
  std::optional<std::chrono::milliseconds> waitBeforeRepeating(const HttpResponse& response, double jitter);

 private:
  std::optional<std::chrono::milliseconds> waitAsTold(std::chrono::seconds told, double jitter);
  std::optional<std::chrono::milliseconds> waitForOthers(std::chrono::seconds told, double jitter);
  std::optional<std::chrono::milliseconds> shortWait(double jitter);

  const int shortRetryLimit_;
  int tries_ = 1;
  int refusals_ = 0;
  int shortRetries_ = 0;
  std::chrono::seconds waitedAsTold_{0};
  std::chrono::milliseconds waitedForOthers_{0};
};
