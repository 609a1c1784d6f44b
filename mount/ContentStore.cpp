#include "mount/ContentStore.h"

#include <cerrno>
#include <utility>

namespace kzv::mount {

using Access = FileContent::Access;

ContentStore::ContentStore(VolumeCalls& calls, std::shared_ptr<UploadJournal> journal, MountTree& tree,
                           NodePaths& paths, ChangedFolders& changed, KernelCache& kernel)
    : calls_(calls),
      journal_(std::move(journal)),
      tree_(tree),
      paths_(paths),
      changed_(changed),
      kernel_(kernel) {}

std::shared_ptr<FileContent> ContentStore::find(const MountNodeRef& node) const {
  const TreeLock lock(tree_);
  return node->content;
}

std::shared_ptr<FileContent> ContentStore::use(const MountNodeRef& node, Access access) {
  const TreeLock lock(tree_);
  // A removed file can be opened again through a descriptor that is still open, but writing it is pointless.
  const bool isRemoved = !tree_.contains(*node);
  if (node->isReplaced || (isRemoved && (access == Access::write || !node->content))) return nullptr;
  if (!node->content) node->content = std::make_shared<FileContent>(journal_);
  node->content->addUser(access);
  return node->content;
}

Result<std::shared_ptr<FileContent>> ContentStore::useForReading(const MountNodeRef& node,
                                                                 const IsInterrupted& isInterrupted) {
  auto content = use(node, Access::read);
  if (!content) return {nullptr, ESTALE};
  const int reason = content->hasData() ? 0 : fetch(node, content, isInterrupted);
  if (reason == 0) return {std::move(content), 0};
  removeUser(node, content, Access::read);
  return {nullptr, reason};
}

void ContentStore::removeUser(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                              Access access) {
  content->removeUser(access);
  releaseUnused(node, content);
}

void ContentStore::releaseUnused(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) {
  std::vector<std::shared_ptr<FileContent>> unused;  // destroyed without the lock
  const bool mayKeep = content->isPrivate() && journal_->freeBytes().value_or(0) > minFreeToKeep;
  const TreeLock lock(tree_);
  if (node->content != content || content->isUnsent()) return;
  const bool isInTree = tree_.contains(*node);
  // Changes made elsewhere while the file was open for writing here are shown from now on.
  if (isInTree && (node->isOutdated || !node->isRemote) && content->writers() == 0 && !content->isLocalOnly())
    changed_.add(node->parent->shared_from_this());
  if (content->hasUsers()) return;
  if (content->isLocalOnly() && isInTree) return;
  if (content->hasData()) node->sizeBytes = content->sizeBytes();
  const bool isCurrent = isInTree && node->isRemote && !node->isOutdated;
  if (isCurrent && mayKeep) return keep(node, unused);
  unused.push_back(std::move(node->content));
}

/// Keeps the node's content; beyond the limits, releases the contents of the files closed longest ago.
void ContentStore::keep(const MountNodeRef& node, std::vector<std::shared_ptr<FileContent>>& unused) {
  std::deque<std::weak_ptr<MountNode>> kept{node};
  std::uint64_t bytes = node->content->sizeBytes();
  if (bytes > maxKeptBytes) unused.push_back(std::move(node->content));
  // NOLINTNEXTLINE(modernize-loop-convert): most recently closed first
  for (auto entry = kept_.rbegin(); entry != kept_.rend(); ++entry) {
    const MountNodeRef older = entry->lock();
    const bool isKept = older && older != node && older->content && !older->content->hasUsers() &&
                        !older->content->isUnsent() && !older->content->isLocalOnly();
    if (!isKept) continue;
    bytes += older->content->sizeBytes();
    if (kept.size() < maxKept && bytes <= maxKeptBytes) {
      kept.push_front(older);
    } else {
      older->sizeBytes = older->content->sizeBytes();
      unused.push_back(std::move(older->content));
    }
  }
  kept_ = std::move(kept);
}

int ContentStore::fetch(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                        const IsInterrupted& isInterrupted) {
  const auto held = paths_.hold(node);
  return fetchFrom(held ? held->path : "", node, content, isInterrupted);
}

int ContentStore::fetchFrom(const std::string& path, const MountNodeRef& node,
                            const std::shared_ptr<FileContent>& content, const IsInterrupted& isInterrupted) {
  std::string version;
  std::string place = path;
  std::shared_ptr<FSReader> reader;
  {
    const TreeLock lock(tree_);
    version = node->version;
    if (place.empty()) place = "/" + node->name;  // only for error texts: the version identifies the bytes
    if (!version.empty() && node->sizeBytes == 0) reader = std::make_shared<EmptyReader>(version);
  }
  if (path.empty() && version.empty()) return ENOENT;
  const auto shouldContinue = [&](NSRange) { return !calls_.isStopping() && !isInterrupted(); };
  const int reason = calls_.attempt(isInterrupted, [&](NSErrorRef* error) {
    if (!reader) reader = calls_.volume().openReader(place, version, shouldContinue, error);
    return reader != nullptr;
  });
  if (reason) return reason;
  content->useReader(std::move(reader));
  Invalidations invalidations;
  {
    const TreeLock lock(tree_);
    if (node->content == content) {
      if (node->sizeBytes != content->sizeBytes()) invalidations.contents.push_back(node->id);
      node->isKernelCacheCurrent = true;
    }
  }
  invalidations.sendTo(kernel_);
  return 0;
}

void ContentStore::fetchForReaders(const MountNodeRef& node, const std::string& path,
                                   const IsInterrupted& isInterrupted) {
  const auto content = find(node);
  if (content && content->hasUsers() && !content->hasData()) fetchFrom(path, node, content, isInterrupted);
}

void ContentStore::noteWritten(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) {
  const TreeLock lock(tree_);
  if (node->content != content) return;
  node->modified = std::chrono::system_clock::now();
  node->isKernelCacheCurrent = true;
}

WriteBase ContentStore::baseToReplace(const MountNodeRef& node) const {
  const TreeLock lock(tree_);
  if (!node || !node->isRemote) return {WriteBase::Kind::nothing, {}};
  return baseOf(node->version);
}

}  // namespace kzv::mount
