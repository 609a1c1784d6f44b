#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "standin/faults/FaultOrder.h"

namespace kzv::standin {

/// The fault rules, and how often each was applied. Thread-safe.
class Faults {
 public:
  class Rule;
  using Claim = std::shared_ptr<Rule>;

  struct Report {
    std::int64_t id = 0;
    FaultOrder order;
    /// Requests that the rule was applied to.
    std::uint64_t claimed = 0;
    /// Of these, the requests that failed: a cut beyond the end of the body never occurs.
    std::uint64_t hits = 0;
  };

  /// @return the rule's number.
  std::int64_t add(FaultOrder order);
  /// Removes all rules and ends the delays in progress, whose requests are then refused (delay()).
  void clear();
  /// Ends current and later delays.
  void stop();
  std::vector<Report> report() const;

  /// The rule for this request: the oldest one that is due; may be null.
  Claim claim(const std::string& route);
  static const FaultOrder& order(const Claim& claim);
  /// Counts a hit. Call when the failure occurs, before the client can notice.
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

}  // namespace kzv::standin
