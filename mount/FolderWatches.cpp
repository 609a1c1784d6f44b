#include "mount/FolderWatches.h"

#include <utility>

namespace kzv::mount {

FolderWatches::FolderWatches(std::shared_ptr<FSPlugin> volume, const MountTree& tree, NodePaths& paths,
                             std::shared_ptr<ChangedFolders> changed)
    : volume_(std::move(volume)), tree_(tree), paths_(paths), changed_(std::move(changed)) {}

FolderWatches::~FolderWatches() {
  std::vector<MountNodeRef> watched;
  {
    const TreeLock lock(tree_);
    MountTree::collectWatched(*tree_.root(), watched);
  }
  for (const auto& folder : watched) unwatch(*folder);
}

void FolderWatches::watch(const MountNodeRef& folder, const std::string& path) {
  const MutexLock watching(mutex_);
  auto item = std::make_shared<FSItem>(path, volume_);
  {
    const TreeLock lock(tree_);
    if (folder->inside().watched) return;
    folder->inside().watched = item;
  }
  item->setIsDirectory(true);
  item->setChangeCallback([changed = changed_, watched = std::weak_ptr<MountNode>(folder)](const auto&) {
    changed->add(watched);
  });
  volume_->startWatchFolder(item);
}

void FolderWatches::unwatch(MountNode& folder) {
  const MutexLock watching(mutex_);
  std::shared_ptr<FSItem> item;
  {
    const TreeLock lock(tree_);
    item = std::move(folder.inside().watched);
  }
  if (item) volume_->stopWatchFolder(item);
}

void FolderWatches::renew(const std::vector<MountNodeRef>& folders) {
  for (const auto& folder : folders) {
    unwatch(*folder);
    if (const auto held = paths_.hold(folder)) watch(folder, held->path);
    changed_->add(folder);  // changes between the two watches were reported to neither
  }
}

}  // namespace kzv::mount
