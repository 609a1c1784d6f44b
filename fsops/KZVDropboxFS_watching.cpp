#include <algorithm>

#include "core/KZVCoreObj.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Unicode.h"
#include "plugin/KZVDropboxFS.h"

void KZVDropboxFS::startWatchFolder(const std::shared_ptr<FSItem>& item) {
  if (!item->isWatchable()) return;
  _watchedFolders.update([&](FSItems& items) { items.push_back(item); });
}

void KZVDropboxFS::stopWatchFolder(const std::shared_ptr<FSItem>& item) {
  if (!item->isWatchable()) return;
  _watchedFolders.update([&](FSItems& items) { std::erase(items, item); });
}

bool KZVDropboxFS::isWatching(const FSItem& item) {
  return _watchedFolders.update([&](const FSItems& items) {
    return std::any_of(items.begin(), items.end(), [&](const auto& watched) { return watched.get() == &item; });
  });
}

void KZVDropboxFS::pollForChanges() { requiredManager().loadDeltaNow(); }

void KZVDropboxFS::dbTimerIntervalExpired(NSTimer& /*timer*/) {
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

// A plain prefix without a look at the separator, on purpose: a change of /ab also redraws a watched /abc,
// which costs a listing from the cache and can never miss a folder that was renamed.
void KZVDropboxFS::_changed_folder(const std::string& path, const std::string& userId) {
  const std::string changed = canonicallyDecomposed(MetadataCache::keyOf(path));
  for (const auto& instance : attachedInstances(userId)) {
    for (const auto& item : instance->watchedFolders()) {
      if (!canonicallyDecomposed(MetadataCache::keyOf(item->path())).starts_with(changed)) continue;
      if (!item->changeCallback()) continue;
      item->prepareForChange();
      // Whether it is still watched is asked when the callback's turn comes: a host that has stopped watching, on
      // the main queue's thread, must not be called any more.
      DispatchQueue::main().async([watcher = std::weak_ptr(instance), item] {
        const auto watching = watcher.lock();
        const auto callback = item->changeCallback();
        if (callback && watching && watching->isWatching(*item)) callback(item);
      });
    }
  }
}
