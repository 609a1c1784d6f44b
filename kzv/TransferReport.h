#pragma once
#include <chrono>
#include <mutex>
#include <string>

#include "core/copy/KZVLocalFS.h"
#include "kzv/ProgressLine.h"
#include "kzv/Verb.h"

namespace kzv::cli {

/// What the person sees of a batch of copies: on a terminal a progress line, else one line per file; failures
/// one by one; and the way their Ctrl-C takes into the batch. The callbacks may come from any thread of the
/// batch. While one lives, a stop waits some seconds for the batch to remove its unfinished files.
class TransferReport {
 public:
  enum class Direction { toDisk, fromDisk };

  TransferReport(VerbContext& context, const KZVBatchId& batchId, Direction direction);
  TransferReport(const TransferReport&) = delete;
  TransferReport& operator=(const TransferReport&) = delete;
  ~TransferReport();

  ProgressCallback totalProgress();
  KZVLocalFS::ItemCopied itemCopied();
  /// What the batch returned. `subject` is named when the batch failed without an item to blame.
  void finish(bool isComplete, const NSErrorRef& error, const std::string& subject);

 private:
  using Clock = std::chrono::steady_clock;
  void draw();
  void showCopied(const copy::CopiedItem& item);

  VerbContext& context_;
  const KZVBatchId& batchId_;
  const Direction direction_;
  const Clock::time_point start_ = Clock::now();
  // The batch calls one observer at a time, so what follows needs no lock.
  Clock::time_point lastDrawn_{};
  TransferRate rate_;
  std::uint64_t filesCopied_ = 0;
  std::uint64_t bytesCopied_ = 0;
  bool hasReportedFailure_ = false;
};

}  // namespace kzv::cli
