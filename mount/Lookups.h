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

/// An item that was found or made. The kernel got one reference to it, which it gives back with forget().
struct FoundItem {
  MountNodeRef node;
  NodeAttributes attributes;
  bool isOtherSpelling = false;  // the item's name is written differently than the one asked for
};

/// Links that anybody can open, by path of the volume. Each may be empty, and returns nothing without an
/// error when there is none or the account cannot have any.
struct LinkSource {
  using Ask = std::function<std::optional<std::string>(const std::string& path, NSErrorRef* error)>;
  Ask find;  // an existing one; makes none
  Ask make;  // makes one where there is none
};

/// Answers what the kernel asks about the tree. Any thread, without the tree's lock. Errors are errno values,
/// see MountedVolume.
class Lookups {
 public:
  Lookups(MountParts& parts, LinkSource links) : parts_(parts), links_(std::move(links)) {}

  /// The item `name` in the folder. Blocks until the volume has answered, when the folder is not known yet.
  Result<FoundItem> lookup(NodeId folder, const std::string& name, const IsInterrupted& isInterrupted);
  /// The kernel gives back `count` references.
  void forget(NodeId node, std::uint64_t count);
  /// Does not block. ESTALE for a node that is no longer in the tree.
  Result<NodeAttributes> attributes(NodeId node);

  struct ListedItem {
    MountNodeRef node;
    std::string name;
  };
  using Listing = std::vector<ListedItem>;
  /// Blocks as lookup.
  Result<std::shared_ptr<const Listing>> list(NodeId folder, const IsInterrupted& isInterrupted);
  /// The attributes of an item of a listing, if it is still there; the kernel then gets one reference.
  std::optional<NodeAttributes> showListed(const ListedItem& item);

  /// The version of a file as the volume tells it (ENODATA when not known).
  Result<std::string> revision(NodeId node);
  /// The link to the item that anybody can open (ENODATA without one). Blocks until the volume has answered.
  Result<std::string> publicLink(NodeId node);
  /// Makes such a link (EOPNOTSUPP when the account cannot). Blocks likewise.
  int makePublicLink(NodeId node);

  // For the other operations of the mount.
  /// Null for a number that the kernel does not have.
  MountNodeRef find(NodeId number) const;
  FoundItem found(const MountNodeRef& node, const std::string& name) KZV_REQUIRES(treeState);
  NodeAttributes attributesOf(const MountNode& node) const KZV_REQUIRES(treeState);

 private:
  Result<std::string> askForLink(NodeId number, const LinkSource::Ask& ask);

  MountParts& parts_;
  const LinkSource links_;
};

}  // namespace kzv::mount
