#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mount/MountParts.h"
#include "mount/Result.h"

namespace kzv::mount {

struct NodeAttributes {
  NodeId id = 0;
  bool isFolder = false;
  std::uint64_t sizeBytes = 0;
  NSDate::Time modified{};
  /// False for an open file that is no longer in the tree: the kernel must ask each time, so that it looks
  /// the name up again once the file is closed.
  bool isCacheable = true;
};

/// An item that was found or created. The kernel holds one more reference to it, which it returns with
/// forget().
struct FoundItem {
  MountNodeRef node;
  NodeAttributes attributes;
  bool isOtherSpelling = false;  // the name that was asked for is another spelling
};

/// Public links to items, by path on the volume. Either may be empty. Both return nothing without an error
/// when there is no link or the account cannot have one.
struct LinkSource {
  using Ask = std::function<std::optional<std::string>(const std::string& path, NSErrorRef* error)>;
  Ask find;  // returns the existing link
  Ask make;  // returns the existing link, or creates one
};

/// Answers what the kernel asks about the tree. Any thread, without the tree's lock. Errors are errno values,
/// see MountedVolume.
class Lookups {
 public:
  Lookups(MountParts& parts, LinkSource links) : parts_(parts), links_(std::move(links)) {}

  /// The item `name` in the folder. Blocks until the volume has answered, unless the folder's items are
  /// known.
  Result<FoundItem> lookup(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  /// The kernel returns `count` references.
  void forget(NodeId node, std::uint64_t count);
  /// Does not block. ESTALE for a node that is no longer in the tree.
  Result<NodeAttributes> attributes(NodeId node);

  struct ListedItem {
    MountNodeRef node;
    std::string name;
  };
  using Listing = std::vector<ListedItem>;
  /// Blocks as lookup() does.
  /// @param thread  that opens the folder, as the kernel numbers it (TreeWalks).
  Result<std::shared_ptr<const Listing>> list(NodeId folder, std::int64_t thread,
                                              const IsInterrupted& isInterrupted);
  /// The attributes of an item of a listing, if it is still there; the kernel then gets one reference.
  std::optional<NodeAttributes> showListed(const ListedItem& item);

  /// The volume's version of a file (ENODATA when unknown).
  Result<std::string> revision(NodeId node);
  /// The item's public link (ENODATA without one). Blocks until the volume has answered.
  Result<std::string> publicLink(NodeId node);
  /// Creates a public link (EOPNOTSUPP when the account cannot have one). Blocks until the volume has
  /// answered.
  int makePublicLink(NodeId node);

  // For the other operations of the mount.
  /// Null for a number that the kernel does not hold a reference to.
  MountNodeRef find(NodeId number) const;
  FoundItem found(const MountNodeRef& node, const std::string& name) KZV_REQUIRES(treeState);
  NodeAttributes attributesOf(const MountNode& node) const KZV_REQUIRES(treeState);

 private:
  Result<std::string> askForLink(NodeId number, const LinkSource::Ask& ask);

  MountParts& parts_;
  const LinkSource links_;
};

}  // namespace kzv::mount
