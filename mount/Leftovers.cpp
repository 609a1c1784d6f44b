#include "mount/Leftovers.h"

#include <algorithm>
#include <utility>

#include "foundation/Paths.h"
#include "mount/VolumePath.h"

namespace kzv::mount {

Leftovers::Leftovers(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal,
                     MountTree& tree, SendQueue& queue, NSDate::Time startTime)
    : volume_(std::move(volume)),
      journal_(std::move(journal)),
      tree_(tree),
      queue_(queue),
      startTime_(startTime) {}

void Leftovers::load() {
  auto locals = journal_->locals();
  {
    const TreeLock lock(tree_);
    locals_ = std::move(locals);
  }
  for (auto& upload : journal_->uploads()) queue_.addLeftover(std::move(upload));
}

void Leftovers::adoptInto(MountNode& folder) {
  const std::string key = tree_.keyPathOf(folder);
  queue_.adoptLeftovers([&](const UploadJournal::Upload& upload)
                            KZV_REQUIRES(treeState) { return adoptUpload(folder, key, upload); });
  std::erase_if(locals_, [&](const UploadJournal::Local& local)
                             KZV_REQUIRES(treeState) { return adoptLocal(folder, local); });
}

std::optional<SendQueue::File> Leftovers::adoptUpload(MountNode& folder, const std::string& folderKey,
                                                      const UploadJournal::Upload& upload) {
  if (volume_->pathKey(deletingLastPathComponent(upload.path)) != folderKey) return std::nullopt;
  const std::string name = lastPathComponent(upload.path);
  MountNodeRef node = tree_.child(folder, name);
  const bool isInUse = node && (node->isFolder || node->content);
  if (isInUse) return std::nullopt;  // it is still uploaded, by its path
  auto content = std::make_shared<FileContent>(journal_);
  if (content->adopt(upload) != 0) return std::nullopt;
  if (!node) {
    node = tree_.make(false);
    node->sizeBytes = content->sizeBytes();
    tree_.add(folder, node, name);
  }
  node->modified = startTime_;
  node->content = content;
  return SendQueue::File{node, std::move(content)};
}

bool Leftovers::adoptLocal(MountNode& folder, const UploadJournal::Local& local) {
  const std::string folderKey = tree_.keyPathOf(folder);
  const std::string parentKey = volume_->pathKey(deletingLastPathComponent(local.path));
  if (parentKey != folderKey) {
    if (!isAtOrBelow(parentKey, folderKey)) return false;
    const std::string name = componentsOf(local.path)[componentsOf(folderKey).size()];
    if (tree_.child(folder, name)) return false;  // its own listing will adopt the file
    const MountNodeRef missing = tree_.make(true);
    missing->modified = startTime_;
    missing->inside().listing = MountNode::Folder::Listing::outOfDate;  // in case the volume gets it again
    tree_.add(folder, missing, name);
    return adoptLocal(*missing, local);
  }
  const std::string name = lastPathComponent(local.path);
  const MountNodeRef hidden = tree_.child(folder, name);  // another client has stored a file of this name
  if (hidden && (hidden->isFolder || hidden->content || hidden->lookups > 0)) return false;
  auto content = std::make_shared<FileContent>(journal_);
  if (content->adopt(local) != 0) return false;
  const MountNodeRef node = tree_.make(false);
  node->sizeBytes = content->sizeBytes();
  node->modified = content->modified().value_or(startTime_);
  node->content = std::move(content);
  node->isOutdated = hidden != nullptr;
  if (hidden) tree_.remove(hidden);
  tree_.add(folder, node, name);
  return true;
}

bool Leftovers::hasAnyBelow(const std::string& path) {
  const std::string key = volume_->pathKey(path);
  const auto isBelow = [&](const auto& leftover) {
    return isAtOrBelow(volume_->pathKey(leftover.path), key);
  };
  const TreeLock lock(tree_);
  return std::any_of(locals_.begin(), locals_.end(), isBelow) || queue_.hasLeftover(isBelow);
}

void Leftovers::move(const std::string& from, const std::string& to) {
  const std::string key = volume_->pathKey(from);
  const std::size_t depth = componentsOf(from).size();
  const auto moveEntry = [&](auto& leftover) {
    if (!isAtOrBelow(volume_->pathKey(leftover.path), key)) return;
    const auto names = componentsOf(leftover.path);
    leftover.path = to;
    for (std::size_t i = depth; i < names.size(); ++i)
      leftover.path = appendingPathComponent(leftover.path, names[i]);
    journal_->put(leftover, UploadJournal::Durability::process);
  };
  const TreeLock lock(tree_);  // also while the entries are written: a listing would adopt them
  std::for_each(locals_.begin(), locals_.end(), moveEntry);
  queue_.changeLeftovers(moveEntry);
}

}  // namespace kzv::mount
