#include "core/BatchCopy.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include "core/KZVConstants.h"

namespace {

constexpr std::uint64_t thousandths = 1000;

class Run {
 public:
  Run(const std::vector<BatchCopy::Job>& jobs, const ProgressCallback& progress,
      const BatchCopy::Finished& finished)
      : jobs_(jobs), progress_(progress), finished_(finished), doneBytes_(jobs.size()) {
    for (const auto& job : jobs) totalBytes_ += weight(job);
  }

  NSErrorRef execute() {
    const auto workers = std::min<std::size_t>(BatchCopy::copiesInFlight, jobs_.size());
    std::vector<std::thread> threads;
    for (std::size_t worker = 1; worker < workers; ++worker) threads.emplace_back([this] { work(); });
    work();
    for (std::thread& thread : threads) thread.join();
    if (wasStopped_) return std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1);
    return firstError_;
  }

 private:
  /// Also an empty file is some work: else a batch of them would show no progress.
  static std::uint64_t weight(const BatchCopy::Job& job) { return job.sizeBytes + 1; }

  void work() {
    for (std::size_t at = next_++; at < jobs_.size() && !isOver_; at = next_++) {
      const BatchCopy::Job& job = jobs_[at];
      NSErrorRef error;
      const bool isCopied = job.copy([&](NSRange range) { return report(at, range); }, &error);
      if (isCopied) report(at, {thousandths, thousandths});
      if (!isCopied && !error) error = std::make_shared<NSError>("KZVCore", 1);
      conclude(job, isCopied ? nullptr : error);
    }
  }

  /// False when the batch is over and the copy should end.
  bool report(std::size_t at, NSRange range) {
    if (isOver_) return false;
    const std::lock_guard lock(mutex_);
    const auto done = static_cast<double>(weight(jobs_[at])) * static_cast<double>(range.location) /
                      static_cast<double>(std::max<std::uint64_t>(range.length, 1));
    allDoneBytes_ += static_cast<std::uint64_t>(done) - doneBytes_[at];
    doneBytes_[at] = static_cast<std::uint64_t>(done);
    if (!progress_ ||
        progress_({allDoneBytes_ * thousandths / std::max<std::uint64_t>(totalBytes_, 1), thousandths})) {
      return true;
    }
    wasStopped_ = true;
    isOver_ = true;
    return false;
  }

  void conclude(const BatchCopy::Job& job, const NSErrorRef& error) {
    const std::lock_guard lock(mutex_);
    if (error && !firstError_) firstError_ = error;
    if (wasStopped_ || !finished_) return;
    if (!finished_(job, error)) isOver_ = true;
  }

  const std::vector<BatchCopy::Job>& jobs_;
  const ProgressCallback& progress_;
  const BatchCopy::Finished& finished_;
  std::atomic<std::size_t> next_ = 0;
  std::atomic<bool> isOver_ = false;
  std::atomic<bool> wasStopped_ = false;
  std::mutex mutex_;
  std::uint64_t totalBytes_ = 0;
  std::uint64_t allDoneBytes_ = 0;        // guarded by mutex_
  std::vector<std::uint64_t> doneBytes_;  // guarded by mutex_: of each job
  NSErrorRef firstError_;                 // guarded by mutex_
};

}  // namespace

bool BatchCopy::run(const std::vector<Job>& jobs, const ProgressCallback& progress, const Finished& finished,
                    NSErrorRef* error) {
  if (NSErrorRef reason = Run(jobs, progress, finished).execute()) {
    setError(error, std::move(reason));
    return false;
  }
  return true;
}
