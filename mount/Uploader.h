#pragma once
#include <memory>
#include <optional>
#include <string>

#include "mount/ContentStore.h"
#include "mount/FolderListings.h"
#include "mount/SendQueue.h"

namespace kzv::mount {

/// Uploads files that were written here. A file is recorded in the journal before its upload, and the entry
/// is removed once the volume has the file. Changes of other devices are never overwritten: the volume then
/// keeps both versions. Any thread, without the tree's lock; calls block until the volume has answered.
class Uploader final : public SendQueue::Sender {
 public:
  Uploader(VolumeCalls& calls, std::shared_ptr<UploadJournal> journal, MountTree& tree, NodePaths& paths,
           ContentStore& contents, FolderListings& listings, SendQueue& queue, ChangedFolders& changed,
           KernelCache& kernel, const MountDelays& delays);

  /// Uploads the file if it has local changes. After a failure it is queued for another attempt.
  int send(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
           const IsInterrupted& isInterrupted);
  /// The path to which the file is uploaded, locked; nothing when it has been removed.
  std::optional<HeldPath> holdTarget(const MountNodeRef& node, const FileContent& content);

  // SendQueue::Sender
  bool sendWaiting(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) override;
  bool sendLeftover(const UploadJournal::Upload& leftover) override;
  void listFolder(const std::string& path) override;

 private:
  enum class Mode { foreground, background };
  int send(const MountNodeRef& node, const std::shared_ptr<FileContent>& content, Mode mode,
           const IsInterrupted& isInterrupted);
  void noteStored(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                  const std::string& path, const StoredFile& stored);
  bool isStoredElsewhere(const std::string& path, const StoredFile& stored) const;
  void logIfStoredElsewhere(const std::string& path, const StoredFile& stored) const;

  VolumeCalls& calls_;
  const std::shared_ptr<UploadJournal> journal_;
  MountTree& tree_;
  NodePaths& paths_;
  ContentStore& contents_;
  FolderListings& listings_;
  SendQueue& queue_;
  ChangedFolders& changed_;
  KernelCache& kernel_;
  const MountDelays& delays_;
};

}  // namespace kzv::mount
