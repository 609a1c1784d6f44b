#include "mount/MountTree.h"

#include <algorithm>
#include <utility>

#include "foundation/Fatal.h"
#include "mount/VolumePath.h"

namespace kzv::mount {

namespace {

template <class NameOf>
std::string joined(const MountNode& node, const NameOf& nameOf) KZV_REQUIRES(treeState) {
  if (!node.parent) return "/";
  std::string path = joined(*node.parent, nameOf);
  if (path.size() > 1) path += '/';
  return path += nameOf(node);
}

template <class Matches>
void collect(MountNode& node, const Matches& matches, std::vector<MountNodeRef>& found)
    KZV_REQUIRES(treeState) {
  if (matches(node)) found.push_back(node.shared_from_this());
  if (!node.isFolder) return;
  for (const auto& [key, child] : node.inside().children) collect(*child, matches, found);
}

}  // namespace

MountTree::MountTree(KeyOf keyOf)
    : keyOf_(std::move(keyOf)), root_(std::make_shared<MountNode>(rootId, true)) {
  root_->isRemote = true;
  root_->lookups = 1;  // the kernel always holds one
  known_.emplace(rootId, root_);
}

MountNodeRef MountTree::find(NodeId number) const {
  const auto found = known_.find(number);
  return found == known_.end() ? nullptr : found->second;
}

MountNodeRef MountTree::child(const MountNode& folder, const std::string& name) const {
  const auto found = folder.inside().children.find(keyOf_(name));
  return found == folder.inside().children.end() ? nullptr : found->second;
}

MountNodeRef MountTree::atPath(const std::string& path) const {
  MountNodeRef node = root_;
  for (const std::string& name : componentsOf(path)) {
    node = node->isFolder ? child(*node, name) : nullptr;
    if (!node) return nullptr;
  }
  return node;
}

MountNodeRef MountTree::make(bool isFolder) { return std::make_shared<MountNode>(++lastId_, isFolder); }

void MountTree::add(MountNode& folder, const MountNodeRef& node, std::string name) {
  node->parent = &folder;
  node->name = std::move(name);
  if (!folder.inside().children.emplace(keyOf_(node->name), node).second)
    fatalInvariant("a folder cannot have two items of one name");
  ++folder.inside().changes;
}

void MountTree::remove(const MountNodeRef& node) {
  if (!node->parent) return;
  auto& folder = node->parent->inside();
  folder.children.erase(keyOf_(node->name));
  ++folder.changes;
  detach(*node);
}

void MountTree::move(const MountNodeRef& node, MountNode& folder, std::string name) {
  auto& before = node->parent->inside();
  before.children.erase(keyOf_(node->name));
  ++before.changes;
  add(folder, node, std::move(name));
}

void MountTree::detach(MountNode& node) {
  node.parent = nullptr;
  if (!node.isFolder) return;
  for (const auto& [key, child] : node.inside().children) detach(*child);
  node.inside().children.clear();
}

void MountTree::collectWatched(MountNode& node, std::vector<MountNodeRef>& folders) {
  const auto isWatched = [](const MountNode& each)
                             KZV_REQUIRES(treeState) { return each.isFolder && each.inside().watched; };
  collect(node, isWatched, folders);
}

void MountTree::collectContents(MountNode& node, std::vector<MountNodeRef>& files) {
  const auto hasContent = [](const MountNode& each)
                              KZV_REQUIRES(treeState) { return each.content != nullptr; };
  collect(node, hasContent, files);
}

bool MountTree::hasLocalChanges(MountNode& node) {
  std::vector<MountNodeRef> files;
  collectContents(node, files);
  return std::any_of(files.begin(), files.end(), [](const MountNodeRef& file) KZV_REQUIRES(treeState) {
    const FileContent& content = *file->content;
    return content.isUnsent() || content.isLocalOnly() || content.writers() > 0;
  });
}

bool MountTree::contains(const MountNode& node) const {
  const MountNode* top = &node;
  while (top->parent) top = top->parent;
  return top == root_.get();
}

std::string MountTree::pathOf(const MountNode& node) {
  return joined(node, [](const MountNode& each) KZV_REQUIRES(treeState) { return each.name; });
}

std::string MountTree::keyPathOf(const MountNode& node) const {
  return joined(node, [this](const MountNode& each) KZV_REQUIRES(treeState) { return keyOf_(each.name); });
}

void MountTree::noteChangeHere(MountNode* folder) {
  if (folder) folder->inside().changedHereAt = std::chrono::steady_clock::now();
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

}  // namespace kzv::mount
