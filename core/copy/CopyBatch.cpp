#include "core/copy/CopyBatch.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <system_error>
#include <utility>

#include "core/KZVConstants.h"
#include "foundation/NSThread.h"

namespace kzv::copy {

namespace {

struct RunningBatches {
  std::mutex mutex;
  std::map<std::uint64_t, const CopyBatch*> batches;  // guarded by mutex
};
RunningBatches& runningBatches() {
  static auto& batches = *new RunningBatches;
  return batches;
}

/// Set on the threads of every batch.
thread_local bool runsTasks = false;

bool isStop(const NSError& error) { return error.domain() == CanceledByUserErrorDomain; }

/// The part of `whole` that corresponds to the range, at most all.
std::uint64_t shareOf(NSRange range, std::uint64_t whole) {
  if (range.location >= range.length) return range.length ? whole : 0;
  const double fraction = static_cast<double>(range.location) / static_cast<double>(range.length);
  return std::min(whole, static_cast<std::uint64_t>(fraction * static_cast<double>(whole)));
}

}  // namespace

CopyBatch::CopyBatch(const KZVBatchId& batchId, CopyObservers observers)
    : number_(batchId.number()), observers_(std::move(observers)) {
  const std::lock_guard lock(runningBatches().mutex);
  runningBatches().batches[number_] = this;
}

CopyBatch::~CopyBatch() {
  const std::lock_guard lock(runningBatches().mutex);
  runningBatches().batches.erase(number_);
}

std::optional<CopyCounts> CopyBatch::countsOf(const KZVBatchId& batchId) {
  const std::lock_guard lock(runningBatches().mutex);
  const auto found = runningBatches().batches.find(batchId.number());
  return found == runningBatches().batches.end() ? std::nullopt : std::optional(found->second->counts());
}

CopyCounts CopyBatch::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

void CopyBatch::add(Task task, Order order) {
  {
    const std::lock_guard lock(mutex_);
    if (order == Order::soon) {
      tasks_.push_front(std::move(task));
    } else {
      tasks_.push_back(std::move(task));
    }
  }
  changed_.notify_one();
}

bool CopyBatch::run(std::size_t threads, NSErrorRef* error) {
  if (runsTasks) {
    setError(error, copyError(EISDIR, "the listing has a file where there is a folder"));
    return false;
  }
  std::vector<std::thread> helpers = startHelpers(threads);
  if (helpers.empty()) {
    setError(error, copyError(EAGAIN, "no thread could be started"));
    return false;
  }
  reportWhileRunning();
  for (auto& helper : helpers) helper.join();
  const std::lock_guard lock(mutex_);
  if (isStoppedByUser_) firstFailure_ = stoppedByUser();
  if (firstFailure_) setError(error, firstFailure_);
  return !firstFailure_;
}

std::vector<std::thread> CopyBatch::startHelpers(std::size_t threads) {
  std::vector<std::thread> helpers;
  const std::lock_guard lock(mutex_);  // so that none ends before all are counted
  try {
    while (helpers.size() < threads) {
      helpers.emplace_back([this] {
        setCurrentThreadName("kzv-copy");
        runsTasks = true;
        work();
      });
    }
  } catch (const std::system_error&) {  // run with fewer
  }
  runningThreads_ = helpers.size();
  return helpers;
}

void CopyBatch::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    // A running task may add others, so an empty queue is the end only when none is running.
    changed_.wait(lock, [&] { return isStopped_ || !tasks_.empty() || runningTasks_ == 0; });
    if (isStopped_ || tasks_.empty()) break;
    const Task task = std::move(tasks_.front());
    tasks_.pop_front();
    ++runningTasks_;
    lock.unlock();
    task();
    lock.lock();
    if (--runningTasks_ == 0 && tasks_.empty()) changed_.notify_all();
  }
  if (--runningThreads_ == 0) ended_.notify_one();
}

/// Calls totalProgress also while no bytes are transferred (a folder is being listed, the service does not
/// answer), so that a stop is noticed.
void CopyBatch::reportWhileRunning() {
  std::unique_lock lock(mutex_);
  while (!ended_.wait_for(lock, stopInterval, [this] { return runningThreads_ == 0; })) {
    lock.unlock();
    {
      const std::lock_guard observing(observersMutex_);
      if (!isStopped()) reportTotal();
    }
    lock.lock();
  }
}

void CopyBatch::stop(Stop reason) {
  {
    const std::lock_guard lock(mutex_);
    isStoppedByUser_ |= reason == Stop::byUser;
    isStopped_ = true;
  }
  changed_.notify_all();
}

CopyBatch::FileRef CopyBatch::expectFile(const std::string& from, const std::string& to,
                                         std::uint64_t sizeBytes) {
  const std::lock_guard lock(mutex_);
  counts_.bytesKnown += sizeBytes;
  ++counts_.filesKnown;
  return std::make_shared<File>(File{from, to, sizeBytes});
}

ProgressCallback CopyBatch::progressOf(const FileRef& file) {
  return [this, file](NSRange range) {
    transferred(file, range);
    return !isStopped();
  };
}

void CopyBatch::transferred(const FileRef& file, NSRange range) {
  const std::lock_guard observing(observersMutex_);
  count(*file, shareOf(range, file->sizeBytes));
  if (isStopped()) return;
  if (observers_.currentProgress && !observers_.currentProgress(file->from, range)) stop(Stop::byUser);
  reportTotal();
}

void CopyBatch::count(File& file, std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  if (bytes <= file.countedBytes) return;  // the transfer was restarted
  counts_.bytesDone += bytes - std::exchange(file.countedBytes, bytes);
}

void CopyBatch::reportTotal() {
  constexpr std::uint64_t whole = 1000;
  if (!observers_.totalProgress) return;
  const CopyCounts now = counts();
  const NSRange bytes{now.bytesDone, now.bytesKnown};
  const NSRange files{now.filesDone, now.filesKnown};
  lastTotal_ = std::max(lastTotal_, shareOf(now.bytesKnown ? bytes : files, whole));
  if (!observers_.totalProgress({lastTotal_, whole})) stop(Stop::byUser);
}

void CopyBatch::finishFile(const FileRef& file, const NSErrorRef& failure, const std::string& storedAt,
                           std::optional<std::uint64_t> sizeBytes) {
  const std::lock_guard observing(observersMutex_);
  count(*file, file->sizeBytes);
  {
    const std::lock_guard lock(mutex_);
    ++counts_.filesDone;
  }
  CopiedItem item{file->from, file->to, false, sizeBytes.value_or(file->sizeBytes), failure};
  if (!storedAt.empty()) item.conflictsWith = std::exchange(item.to, storedAt);
  finish(item);
  if (!isStopped()) reportTotal();
}

void CopyBatch::finishFolder(const std::string& from, const std::string& to, const NSErrorRef& failure) {
  const std::lock_guard observing(observersMutex_);
  finish({from, to, true, 0, failure});
}

void CopyBatch::finish(const CopiedItem& item) {
  if (item.failure) {
    if (isStopped()) return;  // failures caused by the stop are not reported
    if (isStop(*item.failure)) return stop(Stop::byUser);
    const std::lock_guard lock(mutex_);
    if (!firstFailure_) firstFailure_ = item.failure;
  }
  notify(item);
}

void CopyBatch::notify(const CopiedItem& item) {
  const bool shouldContinue = observers_.itemCopied ? observers_.itemCopied(item) : !item.failure;
  if (!shouldContinue) stop(item.failure ? Stop::byFailure : Stop::byUser);
}

NSErrorRef copyError(int errnoValue, std::string text) {
  return NSError::withText(NSPOSIXErrorDomain, errnoValue, std::move(text));
}

}  // namespace kzv::copy
