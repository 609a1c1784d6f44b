#pragma once
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <thread>

#include "foundation/Mutex.h"
#include "mount/MountTree.h"

namespace kzv::mount {

/// Queued invalidations for the kernel, sent by a thread of their own, because the kernel may wait for one of
/// our answers before it accepts one.
///
/// The kernel accepts the invalidation of an entry only while no request is in progress in its folder; until
/// then the sending thread hangs in the kernel, where not even SIGKILL ends it. So such a notice waits here
/// for the folder's requests, up to a limit. Any thread; only stop() blocks.
class KernelNotices {
 public:
  /// How long a notice waits for requests in its folder to end. Long: a name that belongs to another item by
  /// now is looked up again anyway when opened (ESTALE), while a process that is killed while it sends such a
  /// notice leaves programs hanging until `umount -f`.
  static constexpr std::chrono::seconds defaultMaxWait{60};

  explicit KernelNotices(std::chrono::milliseconds maxWait = defaultMaxWait) : maxWait_(maxWait) {}
  KernelNotices(const KernelNotices&) = delete;
  KernelNotices& operator=(const KernelNotices&) = delete;
  /// Calls stop().
  ~KernelNotices();

  void start();
  /// Waits for the notice that is being sent; queued and later ones are dropped.
  void stop();

  /// Queues `send`, to be called on the notices' thread.
  void add(std::function<void()> send) { addFor(noFolder, std::move(send)); }
  /// The same for an entry of `folder`: called once no request is in progress in it, or after the maximal
  /// wait.
  void addFor(NodeId folder, std::function<void()> send);

  /// Marks a request as in progress in a folder while this lives.
  class FolderUse {
   public:
    FolderUse(KernelNotices& notices, NodeId folder);
    FolderUse(const FolderUse&) = delete;
    FolderUse& operator=(const FolderUse&) = delete;
    ~FolderUse();

   private:
    KernelNotices& notices_;
    const NodeId folder_;
  };

 private:
  static constexpr NodeId noFolder = 0;
  struct Notice {
    NodeId folder;
    std::function<void()> send;
    std::chrono::steady_clock::time_point latest;
  };
  void run();
  std::deque<Notice>::iterator next() KZV_REQUIRES(mutex_);

  const std::chrono::milliseconds maxWait_;
  Mutex mutex_;
  Condition changed_;
  std::deque<Notice> notices_ KZV_GUARDED_BY(mutex_);
  std::map<NodeId, int> requestsByFolder_ KZV_GUARDED_BY(mutex_);
  bool isStopped_ KZV_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace kzv::mount
