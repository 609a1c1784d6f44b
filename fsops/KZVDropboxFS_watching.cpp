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

void KZVDropboxFS::pollForChanges() { requiredManager().loadDeltaNow(); }

void KZVDropboxFS::dbTimerIntervalExpired(NSTimer& /*timer*/) {
  for (const auto& plugin : KZVCoreObj::shared().attachedPlugins()) {
    const auto instance = as<KZVDropboxFS>(plugin);
    if (!instance) continue;
    DispatchQueue::global().async([instance] { instance->requiredManager().loadDelta(); });
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
      auto callback = item->changeCallback();
      if (!callback) continue;
      item->prepareForChange();
      DispatchQueue::main().async([callback = std::move(callback), item] { callback(item); });
    }
  }
}
