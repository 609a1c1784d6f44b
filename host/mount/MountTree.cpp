#include "host/mount/MountTree.h"

#include <algorithm>
#include <utility>

#include "foundation/Fatal.h"

namespace {

template <class NameOf>
std::string joined(const MountNode& node, const NameOf& nameOf) {
  if (!node.parent) return "/";
  std::string path = joined(*node.parent, nameOf);
  if (path.size() > 1) path += '/';
  return path += nameOf(node);
}

template <class Matches>
void collect(MountNode& node, const Matches& matches, std::vector<MountNodeRef>& found) {
  if (matches(node)) found.push_back(node.shared_from_this());
  if (!node.inside) return;
  for (const auto& [key, child] : node.inside->children) collect(*child, matches, found);
}

}  // namespace

MountTree::MountTree(KeyOf keyOf)
    : keyOf_(std::move(keyOf)), root_(std::make_shared<MountNode>(rootId, true)) {
  root_->inside = std::make_unique<MountNode::Inside>();
  root_->isRemote = true;
  root_->lookups = 1;  // the kernel never lets go of it
  known_.emplace(rootId, root_);
}

MountNodeRef MountTree::find(NodeId number) const {
  const auto found = known_.find(number);
  return found == known_.end() ? nullptr : found->second;
}

MountNodeRef MountTree::child(const MountNode& folder, const std::string& name) const {
  const auto found = folder.inside->children.find(keyOf_(name));
  return found == folder.inside->children.end() ? nullptr : found->second;
}

MountNodeRef MountTree::make(bool isFolder) {
  auto node = std::make_shared<MountNode>(++lastId_, isFolder);
  if (isFolder) node->inside = std::make_unique<MountNode::Inside>();
  return node;
}

void MountTree::add(MountNode& folder, const MountNodeRef& node, std::string name) {
  node->parent = &folder;
  node->name = std::move(name);
  if (!folder.inside->children.emplace(keyOf_(node->name), node).second)
    fatalInvariant("a folder has one item of a name");
  ++folder.inside->changes;
}

void MountTree::remove(const MountNodeRef& node) {
  if (!node->parent) return;
  auto& inside = *node->parent->inside;
  inside.children.erase(keyOf_(node->name));
  ++inside.changes;
  detach(*node);
}

void MountTree::move(const MountNodeRef& node, MountNode& folder, std::string name) {
  auto& before = *node->parent->inside;
  before.children.erase(keyOf_(node->name));
  ++before.changes;
  add(folder, node, std::move(name));
}

void MountTree::detach(MountNode& node) {
  node.parent = nullptr;
  if (!node.inside) return;
  for (const auto& [key, child] : node.inside->children) detach(*child);
  node.inside->children.clear();
}

void MountTree::collectWatched(MountNode& node, std::vector<MountNodeRef>& folders) {
  collect(
      node, [](const MountNode& each) { return each.inside && each.inside->watched; }, folders);
}

void MountTree::collectContents(MountNode& node, std::vector<MountNodeRef>& files) {
  collect(
      node, [](const MountNode& each) { return each.content != nullptr; }, files);
}

bool MountTree::holds(const MountNode& node) const {
  const MountNode* top = &node;
  while (top->parent) top = top->parent;
  return top == root_.get();
}

std::string MountTree::pathOf(const MountNode& node) {
  return joined(node, [](const MountNode& each) { return each.name; });
}

std::string MountTree::keyPathOf(const MountNode& node) const {
  return joined(node, [this](const MountNode& each) { return keyOf_(each.name); });
}

void MountTree::addLookup(const MountNodeRef& node) {
  if (node->lookups++ == 0) known_.emplace(node->id, node);
}

void MountTree::forget(NodeId number, std::uint64_t count) {
  const auto found = known_.find(number);
  if (found == known_.end() || number == rootId) return;
  MountNode& node = *found->second;
  node.lookups -= std::min(node.lookups, count);
  if (node.lookups == 0) known_.erase(found);
}
