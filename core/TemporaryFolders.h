#pragma once
#include <memory>
#include <mutex>
#include <string>

#include "foundation/NSError.h"
#include "foundation/NSURL.h"

/// Private temporary folders of this process below one root that several processes share. Each process has a
/// folder of its own there, made on first use, with a lock file NAME.lock beside it; the system drops the
/// lock (flock) however the process ends. Thus a folder whose lock can be taken belongs to nobody any more.
/// Any thread.
class TemporaryFolders {
 public:
  /// @param root  an absolute path; made (mode 0700) when the first folder is asked for.
  explicit TemporaryFolders(std::string root);
  TemporaryFolders(const TemporaryFolders&) = delete;
  TemporaryFolders& operator=(const TemporaryFolders&) = delete;
  ~TemporaryFolders();

  /// A new empty folder with mode 0700; nothing, with an NSPOSIXErrorDomain error, when the disk refuses.
  std::shared_ptr<NSURL> makeFolder(NSErrorRef* error);
  /// Removes the folders of processes that have ended, and never one of a process that lives. Blocks for as
  /// long as the disk takes.
  void removeAbandoned();
  /// Removes all folders of this process. A later makeFolder begins anew. Blocks.
  void removeOwn();

 private:
  bool prepareRoot(NSErrorRef* error) const;
  bool makeProcessFolder(NSErrorRef* error);

  const std::string root_;
  std::mutex mutex_;
  std::string processFolder_;  // guarded by mutex_; empty until the first makeFolder
  int lock_ = -1;              // guarded by mutex_; open, and locked, while there is a process folder
};
