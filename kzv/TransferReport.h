#pragma once
#include <chrono>
#include <mutex>
#include <string>

#include "core/copy/KZVLocalFS.h"
#include "kzv/ProgressLine.h"
#include "kzv/Verb.h"

namespace kzv::cli {

/// Shows a batch of copies: a progress line on a terminal, else one line per file, and each failure; and
/// passes a stop signal on to the batch. The callbacks may be called on any thread of the batch. While this
/// lives, a stop waits up to 5 s for the batch to remove unfinished files.
class TransferReport {
 public:
  enum class Direction { toDisk, fromDisk };

  TransferReport(VerbContext& context, const KZVBatchId& batchId, Direction direction);
  TransferReport(const TransferReport&) = delete;
  TransferReport& operator=(const TransferReport&) = delete;
  ~TransferReport();

  ProgressCallback totalProgress();
  KZVLocalFS::ItemCopied itemCopied();
  /// Reports the batch's result. `subject` is named if it failed without a failed item.
  void finish(bool isComplete, const NSErrorRef& error, const std::string& subject);

 private:
  using Clock = std::chrono::steady_clock;
  void draw();
  void showCopied(const copy::CopiedItem& item);

  VerbContext& context_;
  const KZVBatchId& batchId_;
  const Direction direction_;
  const Clock::time_point start_ = Clock::now();
  // The batch calls one callback at a time, so these need no lock.
  Clock::time_point lastDrawn_{};
  TransferRate rate_;
  std::uint64_t filesCopied_ = 0;
  std::uint64_t bytesCopied_ = 0;
  bool hasReportedFailure_ = false;
};

}  // namespace kzv::cli
