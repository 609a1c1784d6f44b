#pragma once
// What the files of MountedVolume share.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/mount/MountErrors.h"
#include "host/mount/MountedVolume.h"

/// "/a/b" as {"a", "b"}.
std::vector<std::string> componentsOf(const std::string& path);
/// Whether the path with this key is the folder's own or one below it.
bool isPathAtOrBelow(std::string_view key, std::string_view folderKey);
/// Whether a file that is written, waits to be sent, or exists only here is at or below `node`, which a
/// listing must then leave alone. Under the tree's lock.
bool mustStay(MountNode& node);

/// News of watched folders, from the main thread to the refreshing one; outlives the volume if it must.
struct MountedVolume::Inbox {
  void add(const std::weak_ptr<MountNode>& folder) {
    {
      const std::lock_guard lock(mutex);
      folders.push_back(folder);
    }
    arrived.notify_one();
  }
  void close() {
    {
      const std::lock_guard lock(mutex);
      isClosed = true;
    }
    arrived.notify_all();
  }
  /// Waits for news; empty once closed.
  std::deque<std::weak_ptr<MountNode>> take() {
    std::unique_lock lock(mutex);
    arrived.wait(lock, [&] { return isClosed || !folders.empty(); });
    if (isClosed) return {};
    return std::exchange(folders, {});
  }

  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<std::weak_ptr<MountNode>> folders;  // guarded by mutex
  bool isClosed = false;                         // guarded by mutex
};

template <class Operation>
int MountedVolume::attempt(const IsInterrupted& isInterrupted, Operation&& operation) {
  using namespace std::chrono_literals;
  for (const auto delay : {100ms, 1000ms, 0ms}) {
    NSErrorRef error;
    if (operation(&error)) return 0;
    if (!isTransient(error) || delay == 0ms) return reasonOf(error);
    if (!pause(delay, isInterrupted)) return isStopping_ ? EIO : EINTR;
  }
  return EIO;
}
