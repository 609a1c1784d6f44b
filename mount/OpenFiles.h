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
  bool isUncached = false;  // what goes through this one bypasses the kernel's page cache
};

/// Opens, reads, writes and closes files. A file is uploaded when its last writer closes it. Any thread,
/// without the tree's lock; calls block until the volume has answered, where they need it. Errors are errno
/// values, see MountedVolume.
class OpenFiles {
 public:
  OpenFiles(MountParts& parts, Lookups& lookups) : parts_(parts), lookups_(lookups) {}

  struct Opened {
    std::unique_ptr<OpenFile> file;
    NodeAttributes attributes;
    bool keepsCache = false;  // the kernel's page cache is current
    /// The kernel must drop the size it knows before it reads; call noteKernelSizeDropped() then.
    bool isKernelSizeStale = false;
  };
  /// @param flags  as open(2): O_RDONLY, O_WRONLY, O_RDWR, O_TRUNC.
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
  /// Lets `put` write to the file's descriptor, which then has `sizeBytes`.
  int write(OpenFile& file, const std::function<int(int descriptor, std::uint64_t sizeBytes)>& put,
            const IsInterrupted& isInterrupted);
  /// ENOSPC when the disk has no room for a file that grows to `sizeBytes`. A hole itself takes none, but all
  /// of the file's bytes are uploaded.
  /// @param file  may be null.
  int checkRoom(NodeId node, const OpenFile* file, std::uint64_t sizeBytes) const;
  /// @param file  may be null: then the file is opened for this and uploaded at once.
  int truncate(NodeId node, OpenFile* file, std::uint64_t sizeBytes, const IsInterrupted& isInterrupted);
  int setModified(NodeId node, NSDate::Time time);

  /// One of the file's descriptors was closed; uploads, if no other writer is left. The errno value is for
  /// close(2): unless the disk is full, the bytes are safe in the journal whatever it is.
  int flush(OpenFile& file, const IsInterrupted& isInterrupted);
  /// Uploads now.
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
