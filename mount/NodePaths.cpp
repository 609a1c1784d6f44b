#include "mount/NodePaths.h"

#include <cerrno>
#include <utility>

namespace kzv::mount {

std::optional<std::string> NodePaths::keyOf(const MountNode& node) const {
  const TreeLock lock(tree_);
  return tree_.contains(node) ? std::optional(tree_.keyPathOf(node)) : std::nullopt;
}

std::optional<HeldPath> NodePaths::checked(const MountNode& node, const std::string& key,
                                           PathLocks::Hold hold) const {
  const TreeLock lock(tree_);
  if (!tree_.contains(node) || tree_.keyPathOf(node) != key) return std::nullopt;
  return HeldPath{MountTree::pathOf(node), node.isRemote, std::move(hold)};
}

std::optional<HeldPath> NodePaths::hold(const MountNodeRef& node) {
  while (const auto key = keyOf(*node))
    if (auto held = checked(*node, *key, locks_.hold({{*key, PathLocks::Kind::item}}))) return held;
  return std::nullopt;
}

Result<HeldPath> NodePaths::holdSubtree(const MountNodeRef& node, const IsInterrupted& isInterrupted) {
  while (const auto key = keyOf(*node)) {
    std::shared_ptr<FileContent> content;
    {
      const TreeLock lock(tree_);
      content = node->content;
    }
    const FileContent::Waiter waiter(content);  // makes a background upload stop
    auto hold = locks_.hold({{*key, PathLocks::Kind::subtree}},
                            [&] { return calls_.isStopping() || isInterrupted(); });
    if (!hold) return {{}, EINTR};
    if (auto held = checked(*node, *key, *std::move(hold))) {
      const TreeLock lock(tree_);
      MountTree::noteChangeHere(node->parent);
      return {*std::move(held), 0};
    }
  }
  return {{}, ENOENT};
}

HeldPath NodePaths::holdPath(std::string path) {
  auto hold = locks_.hold({{calls_.volume().pathKey(path), PathLocks::Kind::item}});
  return {std::move(path), false, std::move(hold)};
}

}  // namespace kzv::mount
