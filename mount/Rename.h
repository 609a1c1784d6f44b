#pragma once
#include <memory>
#include <string>

#include "mount/MountNames.h"
#include "mount/TreeChanges.h"

namespace kzv::mount {

/// One rename, from the look-up to the update of the tree. Any thread, without the tree's lock; blocks until
/// the volume has answered. Errors are errno values.
///
/// The volume cannot replace the target of a move: the target is moved aside first, and back if the rename
/// fails. The journal records this, in case the process dies in between. A version that this mount has not
/// shown is never removed: it stays beside the new file.
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

  /// ESTALE: the name belongs to another node now; the kernel looks it up again.
  static int run(MountParts& parts, Lookups& lookups, TreeChanges& changes, const Request& request,
                 const IsInterrupted& isInterrupted);
  /// Finishes or undoes the renames that an earlier process did not finish: the old target is moved back,
  /// unless the new item is there. Where the volume cannot be asked now, the next start retries.
  static void recover(VolumeCalls& calls, UploadJournal& journal);

 private:
  Rename(MountParts& parts, TreeChanges& changes, const Request& request, const IsInterrupted& isInterrupted)
      : parts_(parts), changes_(changes), request_(request), isInterrupted_(isInterrupted) {}

  // The plan.
  int lookUp(Lookups& lookups);
  int run();
  /// Locks both subtrees, then resolves the paths.
  int claim();
  bool resolvePaths() KZV_REQUIRES(treeState);
  bool becomesLocal() const;
  /// The errno value if the target must not be replaced.
  int checkTarget();
  int perform(const std::shared_ptr<FileContent>& bytes);

  // The kinds of rename.
  int renameRemote();
  int renameToLocal(const std::shared_ptr<FileContent>& content);
  int renameLocalFolder();
  int renameUnsent(const std::shared_ptr<FileContent>& content, bool staysLocal);

  // On the volume.
  /// Where the target is meanwhile.
  struct Aside {
    std::string path;    // empty: the volume has no target
    std::string id;      // of the journal's entry
    bool stays = false;  // a version that this mount has not shown: it is kept
  };
  int moveAside(Aside& aside);
  /// Removes the item that was moved aside, or moves it back when the rename has failed.
  void finishAside(const Aside& aside, bool isRenamed);
  /// Asks the volume whether another device has replaced the file since it was shown here.
  bool isChangedElsewhere(const MountNodeRef& node, const std::string& path);
  void noteMoved(const std::optional<std::string>& revisionBefore);

  /// Moves the source in the tree and updates the paths in its journal entries.
  void updateTree();

  MountParts& parts_;
  TreeChanges& changes_;
  const Request& request_;
  const IsInterrupted& isInterrupted_;
  NameKind toKind_ = NameKind::remote;

  MountNodeRef source_;
  MountNodeRef target_;  // may be null
  MountNodeRef toFolder_;
  std::string fromPath_;
  std::string toPath_;
  std::string targetName_;
  bool isSourceRemote_ = false;
  bool isTargetRemote_ = false;
  PathLocks::Hold hold_;
};

}  // namespace kzv::mount
