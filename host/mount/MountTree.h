#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/FSItem.h"
#include "foundation/NSDate.h"
#include "host/mount/FileContent.h"

using NodeId = std::uint64_t;

/// One file or folder that a mount has shown. Everything but id and isFolder is guarded by the lock of the
/// tree's owner.
struct MountNode : std::enable_shared_from_this<MountNode> {
  MountNode(NodeId number, bool folder) : id(number), isFolder(folder) {}

  const NodeId id;
  const bool isFolder;
  MountNode* parent = nullptr;  // null for the root, and for what is no longer in the tree
  std::string name;             // as the service spells it; empty for the root
  bool isRemote = false;        // the service has it
  bool isKernelFresh = false;   // the kernel's page cache is current
  bool isKernelBehind = false;  // files: the kernel may still have the size of an older version
  /// Another node has the name now, with a newer version, or another device has removed it. Who has this one
  /// open keeps its version.
  bool isReplaced = false;
  /// Files: a newer version is on the volume, which waits until what is being written here was sent.
  bool isBehind = false;
  std::string version;          // files: the one that is shown; empty while the volume has told none
  std::uint64_t sizeBytes = 0;  // while `content` has no bytes, which know better
  NSDate::Time modified{};
  std::optional<NSDate::Time> listedModified;  // as the volume tells it; `modified` may have been set here
  std::uint64_t lookups = 0;                   // how often the kernel has been told of it
  std::shared_ptr<FileContent> content;        // files: while open or unsent, and a while longer

  /// What is known of a folder's inside.
  struct Inside {
    enum class Listing { unknown, outOfDate, complete };
    Listing listing = Listing::unknown;
    /// Grows with every change made here, so that a listing that was asked for before is not taken for the
    /// truth after it.
    std::uint64_t changes = 0;
    std::unordered_map<std::string, std::shared_ptr<MountNode>> children;  // by key
    std::shared_ptr<FSItem> watched;
  };
  std::unique_ptr<Inside> inside;  // folders only
};

using MountNodeRef = std::shared_ptr<MountNode>;

/// The part of an account's tree that a mount has shown, with the numbers that the kernel knows it by. Not
/// thread-safe: its owner has a lock.
class MountTree {
 public:
  static constexpr NodeId rootId = 1;

  /// The key of a name, as FSPlugin::nameKey.
  using KeyOf = std::function<std::string(std::string_view)>;
  explicit MountTree(KeyOf keyOf);

  const MountNodeRef& root() const noexcept { return root_; }
  /// Null for a number that was never given to the kernel, or has been taken back.
  MountNodeRef find(NodeId number) const;
  MountNodeRef child(const MountNode& folder, const std::string& name) const;

  MountNodeRef make(bool isFolder);
  /// Hangs `node` into `folder` under `name`. What was there under that key must be gone.
  void add(MountNode& folder, const MountNodeRef& node, std::string name);
  /// Gives `node`, with everything below it, another place. What was there under that key must be gone.
  void move(const MountNodeRef& node, MountNode& folder, std::string name);
  /// Takes `node` and everything below it out of the tree.
  void remove(const MountNodeRef& node);
  /// The folders at and below `node` that are watched.
  static void collectWatched(MountNode& node, std::vector<MountNodeRef>& folders);
  /// The files at and below `node` whose bytes are at hand.
  static void collectContents(MountNode& node, std::vector<MountNodeRef>& files);

  /// Whether the node is the root or hangs in it.
  bool holds(const MountNode& node) const;
  /// "/a/b" with the names as they are shown; with their keys.
  static std::string pathOf(const MountNode& node);
  std::string keyPathOf(const MountNode& node) const;

  /// The kernel was told of the node once more; forgets `count` of these.
  void addLookup(const MountNodeRef& node);
  void forget(NodeId number, std::uint64_t count);

 private:
  static void detach(MountNode& node);

  const KeyOf keyOf_;
  const MountNodeRef root_;
  NodeId lastId_ = rootId;
  std::unordered_map<NodeId, MountNodeRef> known_;  // to the kernel
};
