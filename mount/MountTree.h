#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/FSItem.h"
#include "foundation/Mutex.h"
#include "foundation/NSDate.h"
#include "mount/FileContent.h"

namespace kzv::mount {

using NodeId = std::uint64_t;

/// The tree's lock in thread-safety annotations: TreeLock acquires it. A process has one tree.
struct KZV_CAPABILITY("tree") TreeState {};
inline TreeState treeState;

/// One file or folder that a mount has shown.
struct MountNode : std::enable_shared_from_this<MountNode> {
  MountNode(NodeId number, bool isAFolder) : id(number), isFolder(isAFolder) {}

  const NodeId id;
  const bool isFolder;
  /// Null for the root, and for nodes that are no longer in the tree.
  MountNode* parent KZV_GUARDED_BY(treeState) = nullptr;
  std::string name KZV_GUARDED_BY(treeState);       // as the volume spells it; empty for the root
  bool isRemote KZV_GUARDED_BY(treeState) = false;  // the volume has it
  /// Files: the kernel's page cache is current.
  bool isKernelCacheCurrent KZV_GUARDED_BY(treeState) = false;
  /// Files: the kernel may still have the size of an older version.
  bool isKernelSizeStale KZV_GUARDED_BY(treeState) = false;
  /// The name now belongs to another node with a newer version, or another device has removed the item. An
  /// open file keeps this node and its version.
  bool isReplaced KZV_GUARDED_BY(treeState) = false;
  /// Files: the volume has a newer version, which is shown after the local changes have been uploaded.
  bool isOutdated KZV_GUARDED_BY(treeState) = false;
  /// Files: the version that is shown; empty: unknown.
  std::string version KZV_GUARDED_BY(treeState);
  /// Files: the size of that version; if `content` has bytes, its size counts instead.
  std::uint64_t sizeBytes KZV_GUARDED_BY(treeState) = 0;
  NSDate::Time modified KZV_GUARDED_BY(treeState){};
  /// The volume's date; `modified` may have been set by a program here.
  std::optional<NSDate::Time> listedModified KZV_GUARDED_BY(treeState);
  std::uint64_t lookups KZV_GUARDED_BY(treeState) = 0;  // references that the kernel holds
  /// Files: while open or not uploaded yet, and a while longer.
  std::shared_ptr<FileContent> content KZV_GUARDED_BY(treeState);

  /// What is known about the items of a folder.
  struct Folder {
    enum class Listing { unknown, outOfDate, complete };
    Listing listing = Listing::unknown;
    /// Incremented with every change, so that a listing requested before a change is not applied after it.
    std::uint64_t changes = 0;
    /// When this mount last started or finished a change in it.
    std::chrono::steady_clock::time_point changedHereAt;
    std::unordered_map<std::string, std::shared_ptr<MountNode>> children;  // by key
    std::shared_ptr<FSItem> watched;
  };
  const std::unique_ptr<Folder> folder = isFolder ? std::make_unique<Folder>() : nullptr;
  Folder& inside() const KZV_REQUIRES(treeState) { return *folder; }
};

using MountNodeRef = std::shared_ptr<MountNode>;

/// The part of an account's tree that a mount has shown, by node number. All calls except root() and the
/// constructor are made under a TreeLock; none blocks.
class MountTree {
 public:
  static constexpr NodeId rootId = 1;

  /// The key of a name, as FSPlugin::nameKey.
  using KeyOf = std::function<std::string(std::string_view)>;
  explicit MountTree(KeyOf keyOf);

  const MountNodeRef& root() const noexcept { return root_; }
  /// Null for a number that the kernel never had, or has forgotten.
  MountNodeRef find(NodeId number) const KZV_REQUIRES(treeState);
  MountNodeRef child(const MountNode& folder, const std::string& name) const KZV_REQUIRES(treeState);
  /// The item at `path` (by its names); null when it has not been shown.
  MountNodeRef atPath(const std::string& path) const KZV_REQUIRES(treeState);

  /// A new node outside of the tree.
  MountNodeRef make(bool isFolder) KZV_REQUIRES(treeState);
  /// Adds `node` to `folder`, which must have no other node with the same name key.
  void add(MountNode& folder, const MountNodeRef& node, std::string name) KZV_REQUIRES(treeState);
  /// Moves `node`, with everything below it, to a name that is not taken.
  void move(const MountNodeRef& node, MountNode& folder, std::string name) KZV_REQUIRES(treeState);
  /// Removes `node` and everything below it from the tree.
  void remove(const MountNodeRef& node) KZV_REQUIRES(treeState);
  /// The watched folders at and below `node`.
  static void collectWatched(MountNode& node, std::vector<MountNodeRef>& folders) KZV_REQUIRES(treeState);
  /// The files at and below `node` that have a FileContent.
  static void collectContents(MountNode& node, std::vector<MountNodeRef>& files) KZV_REQUIRES(treeState);
  /// Whether a file at or below `node` is being written, has a pending upload or exists only on this machine.
  /// A listing must not remove such a file.
  static bool hasLocalChanges(MountNode& node) KZV_REQUIRES(treeState);

  /// Whether the node is the root or below it.
  bool contains(const MountNode& node) const KZV_REQUIRES(treeState);
  /// "/a/b" of names as they are shown; keyPathOf: of their keys.
  static std::string pathOf(const MountNode& node) KZV_REQUIRES(treeState);
  std::string keyPathOf(const MountNode& node) const KZV_REQUIRES(treeState);

  /// To be called before and after a request that changes something in `folder`, which may be null.
  static void noteChangeHere(MountNode* folder) KZV_REQUIRES(treeState);

  /// Count the references that the kernel holds: one more, `count` less.
  void addLookup(const MountNodeRef& node) KZV_REQUIRES(treeState);
  void forget(NodeId number, std::uint64_t count) KZV_REQUIRES(treeState);

 private:
  friend class TreeLock;
  static void detach(MountNode& node) KZV_REQUIRES(treeState);

  mutable std::mutex mutex_;  // see TreeLock
  const KeyOf keyOf_;
  const MountNodeRef root_;
  NodeId lastId_ KZV_GUARDED_BY(treeState) = rootId;
  std::unordered_map<NodeId, MountNodeRef> known_
      KZV_GUARDED_BY(treeState);  // nodes that the kernel holds references to
};

/// Locks the tree and all its nodes until destroyed or unlock(). Nothing blocks under it. Lock order: a
/// path's hold, the tree, then a file's or a queue's own lock.
class KZV_SCOPED_CAPABILITY TreeLock {
 public:
  explicit TreeLock(const MountTree& tree) KZV_ACQUIRE(treeState) : lock_(tree.mutex_) {}
  TreeLock(const TreeLock&) = delete;
  TreeLock& operator=(const TreeLock&) = delete;
  ~TreeLock() KZV_RELEASE() = default;
  void unlock() KZV_RELEASE() { lock_.unlock(); }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace kzv::mount
