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
  /// Registers a user of the file's content, which is created if needed; null when the file was replaced or
  /// removed. Does not block.
  std::shared_ptr<FileContent> use(const MountNodeRef& node, FileContent::Access access);
  /// The same for a reader, with the bytes available. Blocks until the volume has answered.
  Result<std::shared_ptr<FileContent>> useForReading(const MountNodeRef& node,
                                                     const IsInterrupted& isInterrupted);
  /// Removes a user, and releases the content if it was the last.
  void removeUser(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                  FileContent::Access access);
  /// Releases content that is unused and uploaded. Recently written files are kept within limits, so that
  /// reading them again downloads nothing.
  void releaseUnused(const MountNodeRef& node, const std::shared_ptr<FileContent>& content);

  /// Opens the version that the node shows, wherever the file is now. Blocks until the volume has answered.
  int fetch(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
            const IsInterrupted& isInterrupted);
  /// Opens the bytes for those who have the file open. Called before the volume's version is removed or
  /// replaced, after which they may be unavailable. The caller holds `path`, the file's path.
  void fetchForReaders(const MountNodeRef& node, const std::string& path, const IsInterrupted& isInterrupted);

  /// Records that the file has just been written to.
  void noteWritten(const MountNodeRef& node, const std::shared_ptr<FileContent>& content);
  /// What a file that replaces `node` (may be null) may overwrite on the volume: the version that was shown,
  /// and no other.
  WriteBase baseToReplace(const MountNodeRef& node) const;

 private:
  static constexpr std::size_t maxKept = 32;
  static constexpr std::uint64_t maxKeptBytes = 256ULL * 1024 * 1024;
  static constexpr std::uint64_t minFreeToKeep = 4 * maxKeptBytes;  // on the disk

  /// @param path  the file's path on the volume; empty: unknown.
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
  /// Files that were written, uploaded and closed; the most recently closed last.
  std::deque<std::weak_ptr<MountNode>> kept_ KZV_GUARDED_BY(treeState);
};

}  // namespace kzv::mount
