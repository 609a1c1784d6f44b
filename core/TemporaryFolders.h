#pragma once
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/FileLock.h"
#include "foundation/NSError.h"
#include "foundation/NSURL.h"
#include "foundation/OwnFolder.h"

/// Private temporary folders of this process below a root that several processes share. Each process has its
/// own folder there, created on first use, and a lock file NAME.lock beside it, whose lock ends with the
/// process: a folder whose lock can be acquired is abandoned. A root that is a link or belongs to another
/// user is never used, and items with other names are never touched. Any thread.
class TemporaryFolders {
 public:
  /// @param root  an absolute path; it and missing parents are created (mode 0700) with the first folder.
  explicit TemporaryFolders(std::string root);
  TemporaryFolders(const TemporaryFolders&) = delete;
  TemporaryFolders& operator=(const TemporaryFolders&) = delete;
  ~TemporaryFolders();

  /// A new empty folder with mode 0700; nothing, with an NSPOSIXErrorDomain error, on failure.
  std::shared_ptr<NSURL> makeFolder(NSErrorRef* error);
  /// Removes the folders of processes that have ended. Blocks for the disk.
  void removeAbandoned();
  /// Removes all folders of this process; makeFolder can be called again afterwards. Blocks for the disk.
  void removeOwn();

 private:
  struct Own {
    OwnFolder root;
    std::string name;
    FileLock lock;
  };
  std::optional<OwnFolder> prepareRoot(NSErrorRef* error) const;
  bool makeProcessFolder(NSErrorRef* error);

  const std::string root_;
  std::mutex mutex_;
  std::optional<Own> own_;  // guarded by mutex_; nothing until the first makeFolder
};
