#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "core/copy/CopyBatch.h"
#include "core/copy/KZVBatchId.h"
#include "foundation/NSObject.h"

/// Copies between the local disk and volumes. Files are copied concurrently, with common progress,
/// cancellation and result. Any thread, but not from the main run loop's callbacks; the calls block until the
/// batch is done.
class KZVLocalFS final : public NSObject {
 public:
  using CurrentProgress = std::function<bool(const std::string& from, NSRange)>;
  using ItemCopied = std::function<bool(const kzv::copy::CopiedItem&)>;

  static KZVLocalFS& shared();

  /// Copies files and folders of any file systems to the disk, through their fetchFile. Needs only path and
  /// fs of the items. Files replace files of the same name atomically; folders are merged into existing ones.
  /// Modification dates are kept. A link at the target of a given item is followed; below it a link fails
  /// that item, as does a device, a pipe or a socket anywhere.
  ///
  /// @param path  absolute. With one item: its full new path. With several, or with a slash at its end: the
  /// folder in which each keeps its name. Missing parent folders are created.
  /// @param currentProgress, totalProgress, itemCopied  see CopyObservers; may be empty.
  /// @param access  the permissions of created files and folders.
  /// @return true when everything was copied. Otherwise `error` is the first failure: the file system's own,
  /// an NSPOSIXErrorDomain one of the disk (also EINVAL or ENAMETOOLONG for a name that it does not allow),
  /// or CanceledByUserErrorDomain, -1. With `itemCopied` a failure affects only its item, unless the callback
  /// returns false. Copied items stay.
  bool writeFiles(const KZVBatchId& batchId, const FSItems& fsItems, const std::string& path,
                  const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                  const ItemCopied& itemCopied, NSErrorRef* error, LocalAccess access = LocalAccess::byUmask);

  /// Copies a local file or folder to `remotePath`, its full new path on `volume`, through storeFile and
  /// createDirectoryAtPath. Links to files are followed; links to folders below `localPath`, and items that
  /// are neither files nor folders, fail. The rest as writeFiles.
  bool sendFiles(const KZVBatchId& batchId, const std::string& localPath,
                 const std::shared_ptr<FSPlugin>& volume, const std::string& remotePath,
                 const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                 const ItemCopied& itemCopied, NSErrorRef* error);

  /// The progress of a running batch; nothing when it is not running. Any thread, also from the batch's
  /// callbacks. Does not block.
  static std::optional<kzv::copy::CopyCounts> counts(const KZVBatchId& batchId);
};
