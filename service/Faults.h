#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kzv::service {

enum class Corruption { none, request, response, content };

/// One ordered failure.
struct FaultOrder {
  /// "files/download", "oauth2/token", ... or "*" for every route but the admin ones.
  std::string route;
  /// So many matching requests pass first.
  std::uint64_t after = 0;
  /// How often; 0 without a limit.
  std::uint64_t times = 1;
  /// Every Nth matching request.
  std::uint64_t every = 1;

  std::int64_t delayMs = 0;
  std::optional<int> status;
  std::string body;
  std::string contentType;
  std::optional<std::int64_t> retryAfterSeconds;
  std::optional<std::uint64_t> cutRequestAfter;
  std::optional<std::uint64_t> cutResponseAfter;
  std::optional<std::uint64_t> stallAfter;
  bool dropAnswer = false;
  Corruption corrupt = Corruption::none;
};

/// Orders for failures, and how often each was carried out. Thread-safe.
class Faults {
 public:
  class Rule;
  using Claim = std::shared_ptr<Rule>;

  struct Report {
    std::int64_t id = 0;
    FaultOrder order;
    /// Requests the rule was used for.
    std::uint64_t claimed = 0;
    /// Of those, how often the failure really took place: a cut after more bytes than there were never does.
    std::uint64_t hits = 0;
  };

  /// @return the rule's number.
  std::int64_t add(FaultOrder order);
  /// Removes all rules and ends the delays in progress, whose requests are then refused (delay()).
  void clear();
  /// Ends delays, now and in future.
  void stop();
  std::vector<Report> report() const;

  /// The rule for this request, if one is due: the first in order of their making.
  Claim claim(const std::string& route);
  static const FaultOrder& order(const Claim& claim);
  /// To be called when the failure takes place, before the client can notice; counts once per claim.
  void hit(const Claim& claim);
  /// Blocks for the rule's delay, at most until clear() or stop(). False when one of these ended it.
  bool delay(const Claim& claim);

 private:
  mutable std::mutex mutex_;
  std::condition_variable ended_;             // notified when cleared_ or stopping_ changes
  std::uint64_t cleared_ = 0;                 // guarded by mutex_: how often clear() was called
  bool stopping_ = false;                     // guarded by mutex_
  std::int64_t lastId_ = 0;                   // guarded by mutex_
  std::vector<std::shared_ptr<Rule>> rules_;  // guarded by mutex_
};

}  // namespace kzv::service
