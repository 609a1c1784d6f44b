#pragma once
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "mount/ChangedFolders.h"
#include "mount/FileContent.h"
#include "mount/KernelCache.h"
#include "mount/MountTree.h"
#include "mount/NodePaths.h"
#include "mount/Result.h"
#include "mount/VolumeCalls.h"

namespace kzv::mount {

/// The contents of the tree's files: who uses them, where their bytes come from, and when they are released.
/// Any thread, without the tree's lock.
class ContentStore {
 public:
  ContentStore(VolumeCalls& calls, std::shared_ptr<UploadJournal> journal, MountTree& tree, NodePaths& paths,
               ChangedFolders& changed, KernelCache& kernel);

  /// The file's content, if it has one. Does not block.
  std::shared_ptr<FileContent> find(const MountNodeRef& node) const;
  /// The file's content with one user more; null when the name means another file now, or nothing. Does not
  /// block.
  std::shared_ptr<FileContent> use(const MountNodeRef& node, FileContent::Access access);
  /// The same with its bytes available, for a reader. Blocks until the volume has answered.
  Result<std::shared_ptr<FileContent>> useForReading(const MountNodeRef& node,
                                                     const IsInterrupted& isInterrupted);
  /// Removes a user, and releases the content if it was the last.
  void removeUser(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                  FileContent::Access access);
  /// Releases content that nobody uses and that the volume has. What was written here is kept for a while,
  /// within bounds, so that reading it again downloads nothing.
  void releaseUnused(const MountNodeRef& node, const std::shared_ptr<FileContent>& content);

  /// Opens the version that the node shows, wherever the file is now. Blocks until the volume has answered.
  int fetch(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
            const IsInterrupted& isInterrupted);
  /// Called before the version of an open file is removed or replaced: afterwards it may be nowhere. The
  /// caller holds `path`, where the file is.
  void fetchForReaders(const MountNodeRef& node, const std::string& path, const IsInterrupted& isInterrupted);

  /// The file has been written to just now.
  void noteWritten(const MountNodeRef& node, const std::shared_ptr<FileContent>& content);
  /// What a file may replace on the volume that takes the place of `node` (may be null): the version that was
  /// shown, and no other.
  WriteBase baseToReplace(const MountNodeRef& node) const;

 private:
  static constexpr std::size_t maxKept = 32;
  static constexpr std::uint64_t maxKeptBytes = 256ULL * 1024 * 1024;
  static constexpr std::uint64_t minFreeToKeep = 4 * maxKeptBytes;  // on the disk

  /// @param path  where the file is; empty: not known.
  int fetchFrom(const std::string& path, const MountNodeRef& node,
                const std::shared_ptr<FileContent>& content, const IsInterrupted& isInterrupted);
  void keep(const MountNodeRef& node, std::vector<std::shared_ptr<FileContent>>& unused)
      KZV_REQUIRES(treeState);

  VolumeCalls& calls_;
  const std::shared_ptr<UploadJournal> journal_;
  MountTree& tree_;
  NodePaths& paths_;
  ChangedFolders& changed_;
  KernelCache& kernel_;
  /// Files that were written, uploaded and closed, the last closed at the end.
  std::deque<std::weak_ptr<MountNode>> kept_ KZV_GUARDED_BY(treeState);
};

}  // namespace kzv::mount
