#pragma once
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "foundation/Mutex.h"
#include "mount/MountDelays.h"
#include "mount/MountTree.h"
#include "mount/journal/UploadJournal.h"

namespace kzv::mount {

/// Pending uploads and the thread that makes them: files whose upload failed when they were closed, and files
/// that an earlier process left in the journal ("leftovers"). Any thread; only flush() and join() block. Its
/// lock may be taken under the tree's.
class SendQueue {
 public:
  /// The work of the queue's thread. Called without locks; may block.
  class Sender {
   public:
    virtual ~Sender() = default;
    /// Uploads the file; true when it needs no further attempt.
    virtual bool sendWaiting(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) = 0;
    virtual bool sendLeftover(const UploadJournal::Upload& leftover) = 0;
    /// Lists the folder, if it exists, which adopts its leftovers (see adoptLeftovers).
    virtual void listFolder(const std::string& path) = 0;
  };

  explicit SendQueue(const MountDelays& delays) : delays_(delays) {}
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;
  /// Calls stop() and waits for the thread.
  ~SendQueue();

  /// Starts the thread. `sender` must live until join() has returned.
  void start(Sender& sender);
  /// Ends the thread after its current upload. Does not block.
  void stop();
  /// stop(), and waits for the thread.
  void join();

  /// Uploads the file after `delay`, unless it is queued already.
  void add(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
           std::chrono::milliseconds delay);
  void addLeftover(UploadJournal::Upload leftover);
  /// Makes one attempt at each pending upload now and waits for them, at most for `timeout`; false when some
  /// are still pending.
  bool flush(std::chrono::milliseconds timeout);

  struct File {
    MountNodeRef node;
    std::shared_ptr<FileContent> content;
  };
  /// Calls `adopt` with each leftover; it returns the file of the tree that the leftover became, or nothing.
  void adoptLeftovers(const std::function<std::optional<File>(const UploadJournal::Upload&)>& adopt);
  bool hasLeftover(const std::function<bool(const UploadJournal::Upload&)>& matches) const;
  void changeLeftovers(const std::function<void(UploadJournal::Upload&)>& change);

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    File file;                                      // in the tree, or
    std::optional<UploadJournal::Upload> leftover;  // from an earlier process
    Clock::time_point due;
    int failures = 0;
    bool isFolderListed = false;  // leftovers: the folder has been listed since the last attempt
  };
  void run();
  bool send(const Entry& entry);
  Entry postponed(Entry entry) const;

  const MountDelays& delays_;
  Sender* sender_ = nullptr;
  mutable Mutex mutex_;
  Condition changed_;
  std::deque<Entry> entries_ KZV_GUARDED_BY(mutex_);
  int inFlight_ KZV_GUARDED_BY(mutex_) = 0;  // taken from entries_ and not finished
  bool isStopping_ KZV_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace kzv::mount
