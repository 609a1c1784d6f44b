#pragma once
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <thread>

#include "foundation/Mutex.h"
#include "mount/MountTree.h"

namespace kzv::mount {

/// Invalidations on their way to the kernel, sent by a thread of their own, because the kernel may wait for
/// an answer of ours before it takes one.
///
/// The kernel takes the invalidation of an entry only while no request works in its folder; until then the
/// sending thread hangs in the kernel, where not even a kill of this process ends it. So such a notice waits
/// here for its folder, though not for ever. Any thread; nothing here blocks but stop().
class KernelNotices {
 public:
  /// How long a notice waits for requests in its folder to end. Long: an item that is opened by a name that
  /// means something else by now is looked up again anyway (ESTALE), while a process that is killed as it
  /// sends such a notice leaves programs hanging until `umount -f`.
  static constexpr std::chrono::seconds usualPatience{60};

  explicit KernelNotices(std::chrono::milliseconds patience = usualPatience) : patience_(patience) {}
  KernelNotices(const KernelNotices&) = delete;
  KernelNotices& operator=(const KernelNotices&) = delete;
  /// Calls stop().
  ~KernelNotices();

  void start();
  /// Waits for the notice that is being sent; the others are dropped, and so are later ones.
  void stop();

  /// Calls `send` soon, on the thread of the notices.
  void add(std::function<void()> send) { addFor(noFolder, std::move(send)); }
  /// The same for an entry of `folder`: once no request works in there, or when the patience has passed.
  void addFor(NodeId folder, std::function<void()> send);

  /// Says, while it lives, that a request works in a folder.
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

  const std::chrono::milliseconds patience_;
  Mutex mutex_;
  Condition changed_;
  std::deque<Notice> notices_ KZV_GUARDED_BY(mutex_);
  std::map<NodeId, int> requestsByFolder_ KZV_GUARDED_BY(mutex_);
  bool isStopped_ KZV_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace kzv::mount
