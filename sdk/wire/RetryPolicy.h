#pragma once
#include <chrono>
#include <optional>

#include "sdk/wire/HttpRequest.h"

namespace kzv::sdk {

/// Decides whether and when an idempotent request is repeated. There are three budgets: waits that the
/// service requests (429 or 503 with Retry-After); waits because another change of the account is in
/// progress, which are frequent when several devices write; and a few short ones for transient failures (a
/// broken connection, 500, 502, 504, or 429 and 503 without Retry-After). A damaged body may use all tries.
/// Waits are randomised, so that requests that were refused together are not repeated together.
class RetryPolicy {
 public:
  static constexpr int maxTries = 5;
  static constexpr std::chrono::seconds maxRequestedWait{300};
  static constexpr std::chrono::seconds maxWaitForOthers{300};
  static constexpr int maxShortRetries = 2;
  static constexpr std::chrono::milliseconds waitAfterDamage{100};

  explicit RetryPolicy(int shortRetryLimit = maxShortRetries) : shortRetryLimit_(shortRetryLimit) {}

  /// Whether the service refused a change because another one of the same account is in progress: the tag
  /// too_many_write_operations, with status 429 or 409.
  static bool isContention(const HttpResponse& response);

  /// @param jitter  a random number from 0 to 1.
  /// @return how long to wait before the request is repeated; nothing when it is not.
  std::optional<std::chrono::milliseconds> waitBeforeRepeating(const HttpResponse& response, double jitter);

 private:
  std::optional<std::chrono::milliseconds> waitAsRequested(std::chrono::seconds requested, double jitter);
  std::optional<std::chrono::milliseconds> waitForOthers(std::chrono::seconds requested, double jitter);
  std::optional<std::chrono::milliseconds> shortWait(double jitter);

  const int shortRetryLimit_;
  int tries_ = 1;
  int refusals_ = 0;
  int shortRetries_ = 0;
  std::chrono::seconds waitedOnRequest_{0};
  std::chrono::milliseconds waitedForOthers_{0};
};

}  // namespace kzv::sdk
