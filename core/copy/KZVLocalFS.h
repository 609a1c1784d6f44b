#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "core/copy/CopyBatch.h"
#include "core/copy/KZVBatchId.h"
#include "foundation/NSObject.h"

/// The local disk as the other side of a copy. Several files move at once, with one progress, one stop and
/// one result for the whole. Any thread but the main run loop's callbacks; the calls block until the batch is
/// done.
class KZVLocalFS final : public NSObject {
 public:
  using CurrentProgress = std::function<bool(const std::string& from, NSRange)>;
  using ItemCopied = std::function<bool(const kzv::copy::CopiedItem&)>;

  static KZVLocalFS& shared();

  /// Copies files and folders of any file systems to the disk, through fetchFile of the items' own. Needs
  /// only path and fs of the items given; what they are is asked. Files replace files of the same name at
  /// once and whole; folders join those that exist. Modification dates come along. A link in the place of an
  /// item given is followed; one in the place of something below is not, and fails that item, as does a
  /// device, a pipe or a socket.
  ///
  /// @param path  absolute. With one item: its full new path. With several, or with a slash at its end: the
  ///              folder that receives each under its own name. Missing folders above are made.
  /// @param currentProgress, totalProgress, itemCopied  see CopyObservers; may be empty.
  /// @param access  of what is made.
  /// @return true when everything is there. Otherwise `error` is the first failure: the file system's own, an
  ///         NSPOSIXErrorDomain one of the disk (also EINVAL or ENAMETOOLONG for a name that it cannot hold),
  ///         or CanceledByUserErrorDomain, -1. With `itemCopied` a failure concerns its item alone unless
  ///         that says otherwise; what was copied stays.
  bool writeFiles(const KZVBatchId& batchId, const FSItems& fsItems, const std::string& path,
                  const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                  const ItemCopied& itemCopied, NSErrorRef* error, LocalAccess access = LocalAccess::byUmask);

  /// The other way: copies a local file or folder to `remotePath`, its full new path on `volume`, through
  /// storeFile and createDirectoryAtPath. Links to files are followed; links to folders, and what is neither
  /// file nor folder, fail as items. The rest as writeFiles.
  bool sendFiles(const KZVBatchId& batchId, const std::string& localPath,
                 const std::shared_ptr<FSPlugin>& volume, const std::string& remotePath,
                 const CurrentProgress& currentProgress, const ProgressCallback& totalProgress,
                 const ItemCopied& itemCopied, NSErrorRef* error);

  /// How far a batch is that one of the two calls above is working on; nothing when there is none. Any
  /// thread, also from the batch's own callbacks.
  static std::optional<kzv::copy::CopyCounts> counts(const KZVBatchId& batchId);
};
