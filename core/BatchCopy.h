#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/ProgressCallback.h"
#include "foundation/NSError.h"

/// Runs many copies, a fixed number at a time, as one: one progress for the whole, and a stop ends all of
/// them.
class BatchCopy {
 public:
  /// So many copies are under way at once: enough to hide the distance to a service, few enough not to be
  /// turned away.
  static constexpr int copiesInFlight = 16;

  struct Job {
    std::string path;  // what is copied, for messages
    std::uint64_t sizeBytes = 0;
    /// Copies one file and blocks until it is done; must pass the progress callback on to whatever moves the
    /// bytes.
    std::function<bool(const ProgressCallback& progress, NSErrorRef* error)> copy;
  };
  /// Told of each copy that ended, one at a time, on the thread that made it; `error` is empty when it went
  /// well. False ends the batch.
  using Finished = std::function<bool(const Job& job, const NSErrorRef& error)>;

  /// Runs all jobs and blocks until the last has ended. A failed copy does not stop the others unless
  /// `finished` says so.
  /// @param progress  may be empty; thousandths of all bytes; false stops the batch:
  /// CanceledByUserErrorDomain, code -1.
  /// @return true when every copy went well; else false with the error of the first that failed.
  static bool run(const std::vector<Job>& jobs, const ProgressCallback& progress, const Finished& finished,
                  NSErrorRef* error);
};
