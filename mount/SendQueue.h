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

/// Files that wait to be uploaded, and the thread that uploads them: those that could not be sent when they
/// were closed, and those that an earlier process left in the journal ("leftovers"). Any thread; only flush()
/// blocks. Its lock may be taken under the tree's.
class SendQueue {
 public:
  /// What the queue's thread does. Called without locks; may block.
  class Sender {
   public:
    virtual ~Sender() = default;
    /// Uploads the file; true when nothing is left to do for it.
    virtual bool sendWaiting(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) = 0;
    virtual bool sendLeftover(const UploadJournal::Upload& leftover) = 0;
    /// Lists the folder, if there is one, which then takes over its leftovers (see adoptLeftovers).
    virtual void listFolder(const std::string& path) = 0;
  };

  explicit SendQueue(const MountDelays& delays) : delays_(delays) {}
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;
  /// Calls stop() and waits for the thread.
  ~SendQueue();

  /// Starts the thread. `sender` must live until stop() and the end of the thread.
  void start(Sender& sender);
  /// Ends the thread after what it is doing. Does not block.
  void stop();
  /// stop(), and waits for the thread.
  void join();

  /// Uploads the file after `delay`, unless it waits already.
  void add(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
           std::chrono::milliseconds delay);
  void addLeftover(UploadJournal::Upload leftover);
  /// Tries once, now, what waits; false when something still waits at the end of that or of `patience`.
  bool flush(std::chrono::milliseconds patience);

  struct File {
    MountNodeRef node;
    std::shared_ptr<FileContent> content;
  };
  /// Offers each leftover to `adopt`, which makes it a file of the tree or leaves it.
  void adoptLeftovers(const std::function<std::optional<File>(const UploadJournal::Upload&)>& adopt);
  bool hasLeftover(const std::function<bool(const UploadJournal::Upload&)>& matches) const;
  void changeLeftovers(const std::function<void(UploadJournal::Upload&)>& change);

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    File file;                                      // of the tree, or
    std::optional<UploadJournal::Upload> leftover;  // of an earlier process
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
