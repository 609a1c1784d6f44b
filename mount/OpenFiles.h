#pragma once
#include <functional>
#include <memory>
#include <string>

#include "mount/FileContent.h"
#include "mount/Lookups.h"
#include "mount/MountParts.h"
#include "mount/Result.h"

namespace kzv::mount {

/// One open file. Made by open() and create(), ended by release().
struct OpenFile {
  MountNodeRef node;
  std::shared_ptr<FileContent> content;
  FileContent::Access access = FileContent::Access::read;
  bool isUncached = false;  // reads and writes bypass the kernel's page cache
};

/// Opens, reads, writes and closes files. A file is uploaded when its last writer closes it. Any thread,
/// without the tree's lock; calls that need the volume block until it has answered. Errors are errno values,
/// see MountedVolume.
class OpenFiles {
 public:
  OpenFiles(MountParts& parts, Lookups& lookups) : parts_(parts), lookups_(lookups) {}

  struct Opened {
    std::unique_ptr<OpenFile> file;
    NodeAttributes attributes;
    bool keepsCache = false;  // the kernel's page cache is current
    /// The kernel must drop its cached size before it reads; call noteKernelSizeDropped() afterwards.
    bool isKernelSizeStale = false;
  };
  /// @param flags  of open(2): O_RDONLY, O_WRONLY, O_RDWR, O_TRUNC.
  Result<Opened> open(NodeId node, int flags, const IsInterrupted& isInterrupted);
  struct Created {
    FoundItem found;
    Opened opened;
  };
  /// Opens the file if it exists, unless `flags` have O_EXCL.
  Result<Created> create(NodeId folder, const std::string& name, int flags,
                         const IsInterrupted& isInterrupted);
  void noteKernelSizeDropped(OpenFile& file);

  /// Where to read from; the bytes are fetched if they are not available yet.
  Result<FileContent::Bytes> bytesOf(OpenFile& file, const IsInterrupted& isInterrupted);
  /// Calls `put` to write to the file's descriptor; `sizeBytes` is the size before.
  int write(OpenFile& file, const std::function<int(int descriptor, std::uint64_t sizeBytes)>& put,
            const IsInterrupted& isInterrupted);
  /// ENOSPC when the disk has no room for a file that grows to `sizeBytes`. A hole takes no room, but is
  /// uploaded in full.
  /// @param file  may be null.
  int checkRoom(NodeId node, const OpenFile* file, std::uint64_t sizeBytes) const;
  /// @param file  may be null: then the file is opened, truncated and uploaded.
  int truncate(NodeId node, OpenFile* file, std::uint64_t sizeBytes, const IsInterrupted& isInterrupted);
  int setModified(NodeId node, NSDate::Time time);

  /// One of the file's descriptors was closed; uploads if no other writer is left. The errno value is for
  /// close(2); even after a failure the bytes are in the journal, unless the disk is full.
  int flush(OpenFile& file, const IsInterrupted& isInterrupted);
  /// Uploads now (fsync); a local file is synced to the disk.
  int sync(OpenFile& file, const IsInterrupted& isInterrupted);
  void release(std::unique_ptr<OpenFile> file);

 private:
  int prepare(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
              FileContent::Access access, bool truncates, const IsInterrupted& isInterrupted);
  Result<Created> openExisting(const MountNodeRef& node, const std::string& name, int flags,
                               const IsInterrupted& isInterrupted);
  void recordLocal(const MountNodeRef& node, FileContent& content);
  Opened opened(const MountNodeRef& node, std::shared_ptr<FileContent> content, FileContent::Access access,
                bool keepsCache) KZV_REQUIRES(treeState);

  MountParts& parts_;
  Lookups& lookups_;
};

}  // namespace kzv::mount
