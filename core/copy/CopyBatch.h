#pragma once
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/FSItem.h"
#include "core/ProgressCallback.h"
#include "core/StoppableCall.h"
#include "core/copy/KZVBatchId.h"
#include "foundation/NSError.h"

namespace kzv::copy {

/// Files copied concurrently, in either direction: enough to hide the service's latency, few enough not to
/// look like an attack. A service that accepts changes only one by one refuses others, which are retried.
inline constexpr std::size_t maxConcurrentCopies = 16;

/// The progress of a batch. The known totals grow while folders are being listed.
struct CopyCounts {
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesKnown = 0;
  std::uint64_t filesDone = 0;  // copied or failed
  std::uint64_t filesKnown = 0;
};

/// One finished file or folder of a batch.
struct CopiedItem {
  std::string from;  // path in the source file system
  std::string to;    // path in the target file system
  bool isDirectory = false;
  std::uint64_t sizeBytes = 0;
  NSErrorRef failure;  // null: it was copied
  /// The requested path, if another version was there that it is not based on: `to` is then the path beside
  /// it that the file system chose. Else empty.
  std::string conflictsWith{};
};

/// Callbacks of a batch; all may be empty. They are called on the batch's threads, one at a time, must not
/// block for long and must not call a file system. False stops the whole batch.
struct CopyObservers {
  /// Progress of one file, in thousandths.
  std::function<bool(const std::string& from, NSRange)> currentProgress;
  /// Progress of the whole batch in thousandths of its bytes; never decreases.
  ProgressCallback totalProgress;
  /// Called for each item that was copied or failed. Without it the first failure stops the batch.
  std::function<bool(const CopiedItem&)> itemCopied;
};

/// Runs the tasks of a batch, which may add others, on a fixed number of threads, with common cancellation
/// and progress. add, isStopped and the finish functions may be called from any task.
class CopyBatch {
 public:
  using Task = std::function<void()>;

  CopyBatch(const KZVBatchId& batchId, CopyObservers observers);
  CopyBatch(const CopyBatch&) = delete;
  CopyBatch& operator=(const CopyBatch&) = delete;
  ~CopyBatch();

  /// Tasks that find more work run before those that transfer bytes, so that the totals are known early.
  enum class Order { soon, inTurn };
  void add(Task task, Order order);
  /// Runs all tasks, also those added meanwhile, on `threads` new threads (fewer if no more can be started,
  /// EAGAIN if none). The calling thread calls totalProgress every stopInterval. Blocks until the last task
  /// has ended, or after a stop the running ones. False when an item failed (`error`: the first failure) or
  /// the batch was stopped (CanceledByUserErrorDomain, -1). A task cannot run a batch of its own (EISDIR):
  /// this happens when a file system lists a file and then returns a folder for it, and could recurse without
  /// end.
  bool run(std::size_t threads, NSErrorRef* error);

  bool isStopped() const noexcept { return isStopped_; }
  /// Runs a file system call that cannot be stopped, from a task; see callUnlessStopped.
  template <class Call>
  auto unlessStopped(Call call, NSErrorRef* error) const {
    return callUnlessStopped([this] { return !isStopped(); }, std::move(call), error);
  }

  /// One file being copied.
  struct File {
    const std::string from;
    const std::string to;
    const std::uint64_t sizeBytes;
    std::uint64_t countedBytes = 0;  // guarded by the batch's mutex_
  };
  using FileRef = std::shared_ptr<File>;
  /// Adds a found file to the totals.
  FileRef expectFile(const std::string& from, const std::string& to, std::uint64_t sizeBytes);
  /// The progress callback for the transfer of the file.
  ProgressCallback progressOf(const FileRef& file);
  /// Reports that the file was copied or failed. Each expected file is finished once, unless the batch was
  /// stopped.
  /// @param storedAt   its path beside another version, if it was not stored at the requested one.
  /// @param sizeBytes  the bytes copied, if not as many as expected.
  void finishFile(const FileRef& file, const NSErrorRef& failure, const std::string& storedAt = {},
                  std::optional<std::uint64_t> sizeBytes = {});
  /// Reports that a folder was created (not yet its contents), or that an item other than a file failed.
  void finishFolder(const std::string& from, const std::string& to, const NSErrorRef& failure);

  CopyCounts counts() const;
  /// The counts of a running batch; nothing when there is none with this id. Any thread.
  static std::optional<CopyCounts> countsOf(const KZVBatchId& batchId);

 private:
  enum class Stop { byUser, byFailure };
  std::vector<std::thread> startHelpers(std::size_t threads);
  void work();
  void reportWhileRunning();
  void stop(Stop reason);
  void finish(const CopiedItem& item);
  void notify(const CopiedItem& item);
  void transferred(const FileRef& file, NSRange range);
  void count(File& file, std::uint64_t bytes);
  void reportTotal();

  const std::uint64_t number_;
  const CopyObservers observers_;
  std::atomic<bool> isStopped_{false};  // written under mutex_
  std::mutex observersMutex_;           // held while an observer runs; locked before mutex_
  std::uint64_t lastTotal_ = 0;         // guarded by observersMutex_

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::condition_variable ended_;   // with runningThreads_
  std::deque<Task> tasks_;          // guarded by mutex_
  std::size_t runningTasks_ = 0;    // guarded by mutex_
  std::size_t runningThreads_ = 0;  // guarded by mutex_
  CopyCounts counts_;               // guarded by mutex_
  bool isStoppedByUser_ = false;    // guarded by mutex_
  NSErrorRef firstFailure_;         // guarded by mutex_
};

/// An error of a copy in NSPOSIXErrorDomain with a text of its own.
NSErrorRef copyError(int errnoValue, std::string text);

}  // namespace kzv::copy
