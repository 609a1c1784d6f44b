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

/// So many files of a batch are under way at once, either way: enough to hide a service's answer times, few
/// enough not to look like an attack. A service that takes changes one after another says so, and is asked
/// again.
inline constexpr std::size_t copiesAtOnce = 16;

/// How far a batch of copies is. What is known grows while folders are being listed.
struct CopyCounts {
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesKnown = 0;
  std::uint64_t filesDone = 0;  // copied or failed
  std::uint64_t filesKnown = 0;
};

/// One file or folder of a batch that is finished.
struct CopiedItem {
  std::string from;  // a path of the file system that it comes from
  std::string to;    // a path of the one that it goes to
  bool isDirectory = false;
  std::uint64_t sizeBytes = 0;
  NSErrorRef failure;  // empty: it is there
  /// Where it should have gone, when another version stood there that it was not made from: `to` is then the
  /// place beside it that the file system chose. Else empty.
  std::string conflictsWith{};
};

/// Callbacks of a batch; all may be empty. They are called on the batch's threads, one at a time, must not
/// block for long and must not call a file system. False stops the whole batch.
struct CopyObservers {
  /// Progress of one file, in thousandths.
  std::function<bool(const std::string& from, NSRange)> currentProgress;
  /// Progress of the whole batch in thousandths of its bytes; never decreases.
  ProgressCallback totalProgress;
  /// An item that was copied or failed. Without this observer the first failure stops the batch.
  std::function<bool(const CopiedItem&)> itemCopied;
};

/// The engine of a batch: runs tasks, which may add further tasks, on a fixed number of threads, with common
/// cancellation and progress. add, isStopped and the reports may be called from any task's thread.
class CopyBatch {
 public:
  using Task = std::function<void()>;

  CopyBatch(const KZVBatchId& batchId, CopyObservers observers);
  CopyBatch(const CopyBatch&) = delete;
  CopyBatch& operator=(const CopyBatch&) = delete;
  ~CopyBatch();

  /// Tasks that find more work run before those that transfer bytes, so that the total is known early.
  enum class Order { soon, inTurn };
  void add(Task task, Order order);
  /// Runs all tasks, also those added meanwhile, on `threads` further threads (fewer when the system has no
  /// more, EAGAIN when it has none). The calling thread calls totalProgress every stopInterval. Blocks until
  /// the last task has ended, or after a stop the running ones. False when an item failed (`error`: the first
  /// failure) or the batch was stopped (CanceledByUserErrorDomain, -1). A task cannot run a batch of its own
  /// (EISDIR): this happens when a file system lists a file and then returns a folder for it, and could
  /// recurse without end.
  bool run(std::size_t threads, NSErrorRef* error);

  bool isStopped() const noexcept { return isStopped_; }
  /// Runs a call of a file system that knows no stop, from a task; see callUnlessStopped.
  template <class Call>
  auto unlessStopped(Call call, NSErrorRef* error) const {
    return callUnlessStopped([this] { return !isStopped(); }, std::move(call), error);
  }

  /// One file on its way.
  struct File {
    const std::string from;
    const std::string to;
    const std::uint64_t sizeBytes;
    std::uint64_t countedBytes = 0;  // guarded by the batch's mutex_
  };
  using FileRef = std::shared_ptr<File>;
  /// A file was found: it counts from now on.
  FileRef expectFile(const std::string& from, const std::string& to, std::uint64_t sizeBytes);
  /// What to hand to the transfer of the file.
  ProgressCallback progressOf(const FileRef& file);
  /// The file is there, or failed. Each expected file is finished once, unless the batch was stopped.
  /// @param storedAt   its place beside another version, if it could not have the one it was meant for.
  /// @param sizeBytes  of what was copied, if that is another number than was expected.
  void finishFile(const FileRef& file, const NSErrorRef& failure, const std::string& storedAt = {},
                  std::optional<std::uint64_t> sizeBytes = {});
  /// A folder is there (not yet what is in it), or it or something that is no file failed.
  void finishFolder(const std::string& from, const std::string& to, const NSErrorRef& failure);

  CopyCounts counts() const;
  /// The counts of a batch under way; nothing when there is none with this number.
  static std::optional<CopyCounts> countsOf(const KZVBatchId& batchId);

 private:
  enum class Stop { byUser, byFailure };
  std::vector<std::thread> startHelpers(std::size_t threads);
  void work();
  void askWhileRunning();
  void stop(Stop reason);
  void finish(const CopiedItem& item);
  void tell(const CopiedItem& item);
  void transferred(const FileRef& file, NSRange range);
  void count(File& file, std::uint64_t bytes);
  void reportTotal();

  const std::uint64_t number_;
  const CopyObservers observers_;
  std::atomic<bool> isStopped_{false};  // written under mutex_
  std::mutex observersMutex_;           // held while an observer runs; taken before mutex_, never after
  std::uint64_t lastTotal_ = 0;         // guarded by observersMutex_

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::condition_variable ended_;  // with working_
  std::deque<Task> tasks_;         // guarded by mutex_
  std::size_t active_ = 0;         // guarded by mutex_: tasks that are running
  std::size_t working_ = 0;        // guarded by mutex_: threads that have not ended
  CopyCounts counts_;              // guarded by mutex_
  bool isStoppedByUser_ = false;   // guarded by mutex_
  NSErrorRef firstFailure_;        // guarded by mutex_
};

/// An error of a copy in NSPOSIXErrorDomain with a text of its own.
NSErrorRef copyError(int errnoValue, std::string text);

}  // namespace kzv::copy
