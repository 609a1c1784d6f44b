#pragma once
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"
#include "foundation/NSURL.h"
#include "foundation/OwnFolder.h"

/// Private temporary folders of this process below one root that several processes share. Each process has a
/// folder of its own there, made on first use, with a lock file NAME.lock beside it; the system drops the
/// lock (flock) however the process ends. Thus a folder whose lock can be taken belongs to nobody any more.
/// A root that is a link or another user's is never used, and what does not have the form of our own names is
/// never touched. Any thread.
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
  /// This process's folder. Its lock is held as long as `lock` is open.
  struct Own {
    OwnFolder root;
    std::string name;
    Descriptor lock;
  };
  std::optional<OwnFolder> prepareRoot(NSErrorRef* error) const;
  bool makeProcessFolder(NSErrorRef* error);

  const std::string root_;
  std::mutex mutex_;
  std::optional<Own> own_;  // guarded by mutex_; nothing until the first makeFolder
};
