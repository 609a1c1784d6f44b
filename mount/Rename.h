#pragma once
#include <memory>
#include <string>

#include "mount/MountNames.h"
#include "mount/TreeChanges.h"

namespace kzv::mount {

/// One rename, from its look-up to its place in the tree: made for it and run once. Any thread, without the
/// tree's lock; blocks until the volume has answered. Errors are errno values.
///
/// On the volume nothing takes the place of something else: what is in the way is moved aside first, and
/// comes back if the rename fails. The journal knows of it, should this process die in between. A version
/// that this mount has not shown is never removed: it stays beside the new file.
class Rename {
 public:
  enum class Target { mayExist, mustNotExist };
  struct Request {
    NodeId fromFolder = 0;
    std::string fromName;
    NodeId toFolder = 0;
    std::string toName;
    Target target = Target::mayExist;
  };

  /// ESTALE: the name means another node now; the kernel looks again.
  static int run(MountParts& parts, Lookups& lookups, TreeChanges& changes, const Request& request,
                 const IsInterrupted& isInterrupted);
  /// Completes or takes back the renames that an earlier process did not finish: what was moved aside goes
  /// back, unless the new item is there. What the volume cannot tell now waits for the next start.
  static void recover(VolumeCalls& calls, UploadJournal& journal);

 private:
  Rename(MountParts& parts, TreeChanges& changes, const Request& request, const IsInterrupted& isInterrupted)
      : parts_(parts), changes_(changes), request_(request), isInterrupted_(isInterrupted) {}

  // The plan.
  int lookUp(Lookups& lookups);
  int run();
  /// Holds both subtrees, and notes what is where once they are held.
  int claim();
  bool notePlaces() KZV_REQUIRES(treeState);
  bool staysOnThisMachine() const;
  /// What the tree says against it.
  int checkTarget();
  int perform(const std::shared_ptr<FileContent>& bytes);

  // The ways to do it.
  int renameRemote();
  int renameToLocal(const std::shared_ptr<FileContent>& content);
  int renameLocalFolder();
  int renameUnsent(const std::shared_ptr<FileContent>& content, bool staysLocal);

  // On the volume.
  /// Where the item that is replaced lies meanwhile.
  struct Aside {
    std::string path;    // empty: nothing of the volume is replaced
    std::string id;      // of the journal's entry
    bool stays = false;  // it is a version that this mount has not shown
  };
  int moveAside(Aside& aside);
  /// Removes what was moved aside, or brings it back when the rename has failed.
  void finishAside(const Aside& aside, bool isRenamed);
  /// Whether another device has replaced the file since it was shown here, as the volume says now.
  bool isChangedElsewhere(const MountNodeRef& node, const std::string& path);
  void noteMoved(const std::optional<std::string>& revisionBefore);

  /// Gives the source its place in the tree, and its journal entries their paths.
  void putInPlace();

  MountParts& parts_;
  TreeChanges& changes_;
  const Request& request_;
  const IsInterrupted& isInterrupted_;
  NameKind toKind_ = NameKind::remote;

  MountNodeRef source_;
  MountNodeRef target_;  // what is in the way; may be null
  MountNodeRef toFolder_;
  std::string fromPath_;
  std::string toPath_;
  std::string targetName_;
  bool isSourceRemote_ = false;
  bool isTargetRemote_ = false;
  PathLocks::Hold hold_;
};

}  // namespace kzv::mount
