#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>

#include "core/KZVCoreObj.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Unicode.h"
#include "plugin/KZVDropboxFS.h"

namespace {

/// Whether the machine slept since the last call: CLOCK_BOOTTIME counts that time, CLOCK_MONOTONIC does not
/// (clock_gettime(2)).
bool hasSlept() {
  using std::chrono::nanoseconds, std::chrono::seconds;
  const auto read = [](clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
  };
  static std::atomic<nanoseconds> lastSlept{read(CLOCK_BOOTTIME) - read(CLOCK_MONOTONIC)};
  const nanoseconds slept = read(CLOCK_BOOTTIME) - read(CLOCK_MONOTONIC);
  constexpr seconds shortestSleep{5};
  return slept - lastSlept.exchange(slept) >= shortestSleep;
}

}  // namespace

void KZVDropboxFS::startWatchFolder(const std::shared_ptr<FSItem>& item) {
  if (!item->isWatchable()) return;
  _watchedFolders.update([&](FSItems& items) { items.push_back(item); });
  requiredManager().setWatched(true);
}

void KZVDropboxFS::stopWatchFolder(const std::shared_ptr<FSItem>& item) {
  if (!item->isWatchable()) return;
  const bool isAnyLeft = _watchedFolders.update([&](FSItems& items) {
    std::erase(items, item);
    return !items.empty();
  });
  if (!isAnyLeft) requiredManager().setWatched(false);
}

bool KZVDropboxFS::isWatching(const FSItem& item) {
  return _watchedFolders.update([&](const FSItems& items) {
    return std::any_of(items.begin(), items.end(),
                       [&](const auto& watched) { return watched.get() == &item; });
  });
}

// Records can be cached only once the change feed has a cursor.
void KZVDropboxFS::prepareForManyLookUps() { requiredManager().fetchFirstCursor(); }

void KZVDropboxFS::pollForChanges() { requiredManager().loadDeltaNow(); }

void KZVDropboxFS::noteConnectionInterrupted() {
  for (const auto& plugin : KZVCoreObj::shared().attachedPlugins()) {
    if (const auto instance = as<KZVDropboxFS>(plugin))
      instance->requiredManager().noteConnectionInterrupted();
  }
}

void KZVDropboxFS::dbTimerIntervalExpired(NSTimer& /*timer*/) {
  if (hasSlept()) noteConnectionInterrupted();
  for (const auto& plugin : KZVCoreObj::shared().attachedPlugins()) {
    const auto instance = as<KZVDropboxFS>(plugin);
    if (!instance) continue;
    instance->requiredManager().pollOnTimer();
  }
}

void KZVDropboxFS::_changed_file(const std::string& path, const std::string& userId) {
  for (const auto& instance : attachedInstances(userId))
    instance->cache().invalidate(MetadataCache::keyOf(path));
}

// A plain prefix that ignores separators, on purpose: a change of /ab also redraws a watched /abc, which
// costs a listing from the cache, but never misses a renamed folder.
void KZVDropboxFS::_changed_folder(const std::string& path, const std::string& userId) {
  const std::string changed = canonicallyDecomposed(MetadataCache::keyOf(path));
  for (const auto& instance : attachedInstances(userId)) {
    for (const auto& item : instance->watchedFolders()) {
      if (!canonicallyDecomposed(MetadataCache::keyOf(item->path())).starts_with(changed)) continue;
      if (!item->changeCallback()) continue;
      item->prepareForChange();
      // Checks on the main thread whether the item is still watched: a host that has stopped watching there
      // must not be called any more.
      DispatchQueue::main().async([watcher = std::weak_ptr(instance), item] {
        const auto watching = watcher.lock();
        const auto callback = item->changeCallback();
        if (callback && watching && watching->isWatching(*item)) callback(item);
      });
    }
  }
}
