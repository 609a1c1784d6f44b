#include "core/KZVCoreObj.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "core/TemporaryFolders.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Paths.h"
#include "foundation/StandardFolders.h"

struct KZVCoreObj::State {
  State() : temporaryFolders(appendingPathComponent(cacheFolder(), "tmp")) {}

  mutable std::mutex mutex;
  std::vector<std::shared_ptr<FSPlugin>> attached;  // guarded by mutex
  TemporaryFolders temporaryFolders;                // locks itself
};

KZVCoreObj& KZVCoreObj::shared() {
  // Never destroyed: threads of plug-ins may use it until the process ends.
  static KZVCoreObj& core = *new KZVCoreObj;
  return core;
}

KZVCoreObj::KZVCoreObj() : state_(std::make_unique<State>()) {
  // In the background: the folders of killed processes can be many gigabytes.
  DispatchQueue::global().async([state = state_.get()] { state->temporaryFolders.removeAbandoned(); });
}

std::vector<std::shared_ptr<FSPlugin>> KZVCoreObj::attachedPlugins() const {
  const std::lock_guard lock(state_->mutex);
  return state_->attached;
}

std::shared_ptr<NSURL> KZVCoreObj::temporaryFolderForPlugin(const FSPlugin& /*plugin*/, NSErrorRef* error) {
  return state_->temporaryFolders.makeFolder(error);
}

void KZVCoreObj::attach(std::shared_ptr<FSPlugin> plugin) {
  const std::lock_guard lock(state_->mutex);
  auto& attached = state_->attached;
  if (std::find(attached.begin(), attached.end(), plugin) == attached.end())
    attached.push_back(std::move(plugin));
}

void KZVCoreObj::detach(const FSPlugin& plugin) {
  // A watched item and its file system keep each other alive, so closing the volume ends its watches.
  for (const auto& attached : attachedPlugins()) {
    if (attached.get() != &plugin) continue;
    for (const auto& item : attached->watchedFolders()) attached->stopWatchFolder(item);
  }
  std::shared_ptr<FSPlugin> released;  // destroyed without the lock: its destructor may use this object
  const std::lock_guard lock(state_->mutex);
  auto& attached = state_->attached;
  const auto found = std::find_if(attached.begin(), attached.end(),
                                  [&](const auto& candidate) { return candidate.get() == &plugin; });
  if (found == attached.end()) return;
  released = std::move(*found);
  attached.erase(found);
}

void KZVCoreObj::removeTemporaryFolders() { state_->temporaryFolders.removeOwn(); }
