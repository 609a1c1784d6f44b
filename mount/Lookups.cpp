#include "mount/Lookups.h"

#include <cerrno>
#include <utility>

#include "mount/MountErrors.h"

namespace kzv::mount {

MountNodeRef Lookups::find(NodeId number) const {
  const TreeLock lock(parts_.tree);
  return parts_.tree.find(number);
}

NodeAttributes Lookups::attributesOf(const MountNode& node) const {
  const bool hasNewerSize = node.content && node.content->hasData();
  return {node.id, node.isFolder, hasNewerSize ? node.content->sizeBytes() : node.sizeBytes,
          node.id == MountTree::rootId ? parts_.startTime : node.modified, parts_.tree.contains(node)};
}

FoundItem Lookups::found(const MountNodeRef& node, const std::string& name) {
  parts_.tree.addLookup(node);
  return {node, attributesOf(*node), node->name != name};
}

Result<FoundItem> Lookups::lookup(NodeId folder, const std::string& name,
                                  const IsInterrupted& isInterrupted) {
  const auto child = parts_.listings.child(find(folder), name, isInterrupted);
  if (child.error) return {{}, child.error};
  const TreeLock lock(parts_.tree);
  if (!child.value || !parts_.tree.contains(*child.value)) return {{}, ENOENT};
  return {found(child.value, name), 0};
}

void Lookups::forget(NodeId node, std::uint64_t count) {
  const TreeLock lock(parts_.tree);
  parts_.tree.forget(node, count);
}

Result<NodeAttributes> Lookups::attributes(NodeId number) {
  const TreeLock lock(parts_.tree);
  const auto node = parts_.tree.find(number);
  if (!node) return {{}, ENOENT};
  // After ESTALE the kernel looks the name up again. Invalidating the entry instead would need the folder's
  // lock, which a request in the folder may hold.
  const bool isInUse = node->content && node->content->hasUsers();
  if (!parts_.tree.contains(*node) && !isInUse) return {{}, ESTALE};
  return {attributesOf(*node), 0};
}

Result<std::shared_ptr<const Lookups::Listing>> Lookups::list(NodeId number, std::int64_t thread,
                                                              const IsInterrupted& isInterrupted) {
  const auto folder = find(number);
  if (!folder) return {nullptr, ENOENT};
  if (!folder->isFolder) return {nullptr, ENOTDIR};
  if (parts_.listings.isUnknown(*folder)) {
    if (const auto held = parts_.paths.hold(folder))
      parts_.walks.beforeListing(held->path, thread, isInterrupted);
  }
  if (const int reason = parts_.listings.ensureListed(folder, isInterrupted)) return {nullptr, reason};
  auto listing = std::make_shared<Listing>();
  const TreeLock lock(parts_.tree);
  const auto& children = folder->inside().children;
  listing->reserve(children.size());
  for (const auto& [key, child] : children) listing->push_back({child, child->name});
  return {std::move(listing), 0};
}

std::optional<NodeAttributes> Lookups::showListed(const ListedItem& item) {
  const TreeLock lock(parts_.tree);
  if (!parts_.tree.contains(*item.node) || item.node->name != item.name) return std::nullopt;
  return found(item.node, item.name).attributes;
}

Result<std::string> Lookups::revision(NodeId number) {
  std::string path;
  {
    const TreeLock lock(parts_.tree);
    const auto node = parts_.tree.find(number);
    if (!node || !parts_.tree.contains(*node)) return {{}, ENOENT};
    if (!node->isRemote || (node->content && node->content->isUnsent())) return {{}, ENODATA};
    if (!node->version.empty()) return {node->version, 0};
    path = MountTree::pathOf(*node);
  }
  const auto revision = parts_.volume->revisionAtPath(path);
  return revision ? Result<std::string>{*revision, 0} : Result<std::string>{{}, ENODATA};
}

Result<std::string> Lookups::askForLink(NodeId number, const LinkSource::Ask& ask) {
  const auto node = find(number);
  const auto held = node ? parts_.paths.hold(node) : std::nullopt;
  if (!held) return {{}, ENOENT};
  if (!ask) return {{}, ENODATA};
  NSErrorRef error;
  const auto link = ask(held->path, &error);
  if (link) return {*link, 0};
  return {{}, error ? errnoOf(error) : ENODATA};
}

Result<std::string> Lookups::publicLink(NodeId number) { return askForLink(number, links_.find); }

int Lookups::makePublicLink(NodeId number) {
  const int reason = askForLink(number, links_.make).error;
  return reason == ENODATA ? EOPNOTSUPP : reason;
}

}  // namespace kzv::mount
