#include <algorithm>
#include <cerrno>
#include <unordered_set>

#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "foundation/Paths.h"
#include "host/mount/MountNames.h"
#include "host/mount/MountedVolume.h"
#include "host/mount/MountedVolume_private.h"

using namespace std::chrono_literals;

namespace {

/// Desktops ask for space all the time, and the service takes two requests to tell.
constexpr auto spaceAge = 30s;

/// Changes come in bursts, and a folder that changes all the time is looked at so often.
constexpr auto inboxPause = 100ms;

/// Names that would mean something else to a kernel; the service has none of them.
bool isShowable(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

bool mustStay(MountNode& node) {
  std::vector<MountNodeRef> files;
  MountTree::collectContents(node, files);
  return std::any_of(files.begin(), files.end(), [](const MountNodeRef& file) {
    const FileContent& content = *file->content;
    return content.isUnsent() || content.isLocalOnly() || content.writers() > 0;
  });
}

std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> names;
  for (std::size_t start = 1; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    names.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

bool isPathAtOrBelow(std::string_view key, std::string_view folderKey) {
  if (folderKey == "/") return true;
  return key.starts_with(folderKey) && (key.size() == folderKey.size() || key[folderKey.size()] == '/');
}

// --- Looking

MountedVolume::Found MountedVolume::foundLocked(const MountNodeRef& node, const std::string& name) {
  tree_.addLookup(node);
  return {node, attributesOf(*node), node->name != name};
}

Answer<MountNodeRef> MountedVolume::childOf(const MountNodeRef& folder, const std::string& name,
                                            const IsInterrupted& isInterrupted) {
  if (!folder) return {nullptr, ENOENT};
  if (!folder->isFolder) return {nullptr, ENOTDIR};
  if (const int reason = ensureListed(folder, isInterrupted)) return {nullptr, reason};
  const std::lock_guard lock(treeMutex_);
  return {tree_.child(*folder, name), 0};
}

Answer<MountedVolume::Found> MountedVolume::lookup(NodeId folder, const std::string& name,
                                                   const IsInterrupted& isInterrupted) {
  const auto child = childOf(find(folder), name, isInterrupted);
  if (child.error) return {{}, child.error};
  const std::lock_guard lock(treeMutex_);
  if (!child.value || !tree_.holds(*child.value)) return {{}, ENOENT};
  return {foundLocked(child.value, name), 0};
}

void MountedVolume::forget(NodeId node, std::uint64_t count) {
  const std::lock_guard lock(treeMutex_);
  tree_.forget(node, count);
}

Answer<NodeAttributes> MountedVolume::attributes(NodeId number) {
  const std::lock_guard lock(treeMutex_);
  const auto node = tree_.find(number);
  if (!node) return {{}, ENOENT};
  // The kernel then looks the name up again: so it hears what a name means now without news of the name, for
  // which it would take the folder's lock, that a request in the folder may hold.
  const bool isInUse = node->content && node->content->hasUsers();
  if (!tree_.holds(*node) && !isInUse) return {{}, ESTALE};
  return {attributesOf(*node), 0};
}

Answer<std::shared_ptr<const MountedVolume::Listing>> MountedVolume::list(
    NodeId number, const IsInterrupted& isInterrupted) {
  const auto folder = find(number);
  if (!folder) return {nullptr, ENOENT};
  if (!folder->isFolder) return {nullptr, ENOTDIR};
  if (const int reason = ensureListed(folder, isInterrupted)) return {nullptr, reason};
  auto listing = std::make_shared<Listing>();
  const std::lock_guard lock(treeMutex_);
  listing->reserve(folder->inside->children.size());
  for (const auto& [key, child] : folder->inside->children) listing->push_back({child, child->name});
  return {std::move(listing), 0};
}

std::optional<NodeAttributes> MountedVolume::showListed(const ListedItem& item) {
  const std::lock_guard lock(treeMutex_);
  if (!tree_.holds(*item.node) || item.node->name != item.name) return std::nullopt;
  return foundLocked(item.node, item.name).attributes;
}

Answer<std::pair<std::uint64_t, std::uint64_t>> MountedVolume::space() {
  std::unique_lock lock(spaceMutex_);
  spaceTold_.wait(lock, [&] { return space_ || !isAskingForSpace_; });
  const bool wasAsked = spaceAskedAt_ != Clock::time_point() && Clock::now() - spaceAskedAt_ < spaceAge;
  if (!wasAsked && !isAskingForSpace_) askForSpace(lock);
  return space_ ? Answer<std::pair<std::uint64_t, std::uint64_t>>{*space_, 0}
                : Answer<std::pair<std::uint64_t, std::uint64_t>>{{}, EIO};
}

/// Asks without the lock, since a silent line takes its time; whoever has an older answer goes on with that.
void MountedVolume::askForSpace(std::unique_lock<std::mutex>& lock) {
  isAskingForSpace_ = true;
  lock.unlock();
  NSErrorRef error;
  const auto told = volume_->fsAttributes("/", &error);
  lock.lock();
  isAskingForSpace_ = false;
  spaceAskedAt_ = Clock::now();
  spaceTold_.notify_all();
  if (!told) return;
  const auto bytes = [&](std::string_view key) -> std::uint64_t {
    const auto number = as<NSNumber>(told->objectForKey(key));
    return number ? static_cast<std::uint64_t>(std::max<std::int64_t>(number->int64Value(), 0)) : 0;
  };
  space_ = {bytes(NSFileSystemSize), bytes(NSFileSystemFreeSize)};
}

Answer<std::string> MountedVolume::revision(NodeId number) {
  std::string path;
  {
    const std::lock_guard lock(treeMutex_);
    const auto node = tree_.find(number);
    if (!node || !tree_.holds(*node)) return {{}, ENOENT};
    if (!node->isRemote || (node->content && node->content->isUnsent())) return {{}, ENODATA};
    if (!node->version.empty()) return {node->version, 0};
    path = MountTree::pathOf(*node);
  }
  const auto revision = volume_->revisionAtPath(path);
  return revision ? Answer<std::string>{*revision, 0} : Answer<std::string>{{}, ENODATA};
}

Answer<std::string> MountedVolume::askForLink(NodeId number, const LinkSource::Ask& ask) {
  const auto node = find(number);
  const auto held = node ? holdPath(node) : std::nullopt;
  if (!held) return {{}, ENOENT};
  if (!ask) return {{}, ENODATA};
  NSErrorRef error;
  const auto link = ask(held->path, &error);
  if (link) return {*link, 0};
  return {{}, error ? errnoOf(error) : ENODATA};
}

Answer<std::string> MountedVolume::publicLink(NodeId number) { return askForLink(number, links_.find); }

int MountedVolume::makePublicLink(NodeId number) {
  const int reason = askForLink(number, links_.make).error;
  return reason == ENODATA ? EOPNOTSUPP : reason;
}

// --- Listing

int MountedVolume::ensureListed(const MountNodeRef& folder, const IsInterrupted& isInterrupted) {
  using State = MountNode::Inside::Listing;
  constexpr int rounds = 3;  // then what changes all the time is shown as it was a moment ago
  for (int round = 1; round <= rounds; ++round) {
    std::uint64_t changes = 0;
    {
      const std::lock_guard lock(treeMutex_);
      if (folder->inside->listing == State::complete) return 0;
      if (!folder->isRemote) return 0;  // deleted elsewhere, but for what is still to be sent
      changes = folder->inside->changes;
    }
    const auto held = holdPath(folder);
    if (!held) return ENOENT;
    watch(folder, held->path);  // before the look: what changes after it is told
    FSItems items;
    const int reason = attempt(isInterrupted, [&](NSErrorRef* error) {
      auto listed = volume_->contentAtPath(held->path, false, true, error);
      if (!listed) return false;
      items = *std::move(listed);
      return true;
    });
    if (reason) return reason;
    Notices notices;
    std::vector<MountNodeRef> unneeded;
    {
      const std::lock_guard lock(treeMutex_);
      if (!tree_.holds(*folder)) return ENOENT;
      const bool isCurrent = folder->inside->changes == changes;
      if (!isCurrent && round < rounds) continue;
      if (isCurrent) {
        unneeded = applyListing(*folder, items, notices);
        folder->inside->listing = State::complete;
      } else {
        // What it does not show may have been made since, and what it shows may be gone: better too little
        // news than files that vanish. The refresher looks again.
        if (folder->inside->listing == State::unknown) addMissing(*folder, items, notices);
        folder->inside->listing = State::outOfDate;
        inbox_->add(folder);
      }
    }
    tell(notices);
    for (const auto& watched : unneeded) unwatch(*watched);
    return 0;
  }
  return 0;
}

/// Adds what a listing shows and the tree does not, and nothing else.
void MountedVolume::addMissing(MountNode& folder, const FSItems& items, Notices& notices) {
  for (const auto& item : items) {
    std::string name = item->name();
    if (!isShowable(name) || tree_.child(folder, name)) continue;
    const MountNodeRef node = tree_.make(item->isDirectory());
    tree_.add(folder, node, std::move(name));
    show(*node, *item, notices);
  }
  adoptLeftUploads(folder);
  adoptLeftLocals(folder);
}

/// Makes the tree what the listing shows. Answers the folders that it took out and that are watched still.
std::vector<MountNodeRef> MountedVolume::applyListing(MountNode& folder, const FSItems& items,
                                                      Notices& notices) {
  std::vector<MountNodeRef> unneeded;
  std::unordered_set<std::string> seen;
  bool isChanged = false;
  for (const auto& item : items) {
    std::string name = item->name();
    if (!isShowable(name)) continue;
    MountNodeRef node = tree_.child(folder, name);
    if (!seen.insert(volume_->nameKey(name)).second) continue;
    if (node && node->isFolder != item->isDirectory()) {
      if (mustStay(*node)) continue;
      notices.contents.push_back(node->id);
      MountTree::collectWatched(*node, unneeded);
      tree_.remove(node);
      node = nullptr;
    }
    if (node && node->content && node->content->isLocalOnly()) {
      node->isBehind = true;  // a file that stays here hides the account's until it is removed
      continue;
    }
    if (node && !node->isFolder && node->isRemote && isOtherVersion(*node, *item)) {
      isChanged |= showNewVersion(node, *item, notices);
      continue;
    }
    if (!node) {
      node = tree_.make(item->isDirectory());
      tree_.add(folder, node, std::move(name));
      isChanged = true;
    }
    show(*node, *item, notices);
  }
  std::vector<MountNodeRef> gone;
  for (const auto& [key, child] : folder.inside->children) {
    if (!seen.contains(key) && (child->isRemote || !mustStay(*child))) gone.push_back(child);
  }
  for (const auto& child : gone) {
    if (mustStay(*child)) {
      child->isRemote = false;
      continue;
    }
    notices.contents.push_back(child->id);
    child->isReplaced = true;
    MountTree::collectWatched(*child, unneeded);
    tree_.remove(child);
    isChanged = true;
  }
  adoptLeftUploads(folder);
  adoptLeftLocals(folder);
  if (isChanged) notices.listings.push_back(folder.id);
  return unneeded;
}

/// Whether the listing shows another version of the file. Where the volume has no versions, size and date
/// must do.
bool MountedVolume::isOtherVersion(const MountNode& node, const FSItem& item) {
  if (const std::string version = item.version(); !version.empty()) return node.version != version;
  return node.listedModified != item.modificationDate() || node.sizeBytes != item.size();
}

/// Brings a node up to date with a listing, but for the version of a file that it has shown before.
void MountedVolume::show(MountNode& node, const FSItem& item, Notices& notices) {
  if (node.name != item.name()) {
    notices.entries.emplace_back(node.parent->id, node.name);
    notices.listings.push_back(node.parent->id);
    node.name = item.name();
  }
  if (!node.isFolder && node.content && node.content->isUnsent()) {
    node.isBehind |= node.version != item.version();
    node.isRemote = true;
    return;  // what was written here and is not sent yet stays as it is
  }
  if (!node.isRemote || node.isFolder || isOtherVersion(node, item)) {
    node.modified = item.modificationDate().value_or(startTime_);
    node.sizeBytes = item.size();
  }
  node.isRemote = true;
  node.isBehind = false;
  node.listedModified = item.modificationDate();
  node.version = item.version();
}

/// Shows a newer version of a file: in a node of its own while somebody has the older one open. While that
/// one is being written or sent it stays: the service then keeps both versions. True when the folder looks
/// different now.
bool MountedVolume::showNewVersion(const MountNodeRef& node, const FSItem& item, Notices& notices) {
  const auto& content = node->content;
  if (content && (content->isUnsent() || content->writers() > 0)) {
    node->isBehind = true;
    return false;
  }
  if (!content || !content->hasUsers()) {
    // Nobody can mix it with the older one: the node stays, and the kernel's caches go.
    if (content) notices.unused.push_back(std::move(node->content));
    if (node->lookups > 0) notices.contents.push_back(node->id);
    node->isKernelFresh = false;
    node->isKernelBehind = node->lookups > 0;
    show(*node, item, notices);
    return false;
  }
  MountNode& folder = *node->parent;
  notices.contents.push_back(node->id);
  tree_.remove(node);
  node->isReplaced = true;
  const MountNodeRef newer = tree_.make(false);
  tree_.add(folder, newer, item.name());
  show(*newer, item, notices);
  return true;
}

/// What earlier processes could not send is shown where it belongs.
void MountedVolume::adoptLeftUploads(MountNode& folder) {
  const std::string key = tree_.keyPathOf(folder);
  const std::lock_guard lock(waitingMutex_);
  for (Waiting& waiting : waiting_) {
    if (!waiting.left || volume_->pathKey(deletingLastPathComponent(waiting.left->path)) != key) continue;
    const std::string name = lastPathComponent(waiting.left->path);
    MountNodeRef node = tree_.child(folder, name);
    const bool isInUse = node && (node->isFolder || node->content);
    if (isInUse) continue;  // sent by its path, all the same
    auto content = std::make_shared<FileContent>(volume_, journal_);
    if (content->adopt(*waiting.left) != 0) continue;
    if (!node) {
      node = tree_.make(false);
      tree_.add(folder, node, name);
    }
    node->sizeBytes = content->sizeBytes();
    node->modified = startTime_;
    node->content = content;
    waiting.left.reset();
    waiting.node = node;
    waiting.content = std::move(content);
  }
}

/// Files that stay on this machine are shown where they belong, under the tree's lock. Folders that the
/// account has no more are shown for as long as such files are in them.
void MountedVolume::adoptLeftLocals(MountNode& folder) {
  std::erase_if(leftLocals_, [&](const UploadJournal::Local& local) { return adoptLocal(folder, local); });
}

/// Whether the file is below `folder` and could be shown.
bool MountedVolume::adoptLocal(MountNode& folder, const UploadJournal::Local& local) {
  const std::string folderKey = tree_.keyPathOf(folder);
  const std::string parent = deletingLastPathComponent(local.path);
  if (volume_->pathKey(parent) != folderKey) {
    if (!isPathAtOrBelow(volume_->pathKey(parent), folderKey)) return false;
    const std::size_t depth = componentsOf(folderKey).size();
    const std::string name = componentsOf(local.path)[depth];
    if (tree_.child(folder, name)) return false;  // its listing will show the file
    const MountNodeRef missing = tree_.make(true);
    missing->modified = startTime_;
    missing->inside->listing = MountNode::Inside::Listing::outOfDate;  // for when the account has it again
    tree_.add(folder, missing, name);
    return adoptLocal(*missing, local);
  }
  const std::string name = lastPathComponent(local.path);
  const MountNodeRef hidden = tree_.child(folder, name);  // another client has stored a file of this name
  if (hidden && (hidden->isFolder || hidden->content || hidden->lookups > 0)) return false;
  auto content = std::make_shared<FileContent>(volume_, journal_);
  if (content->adopt(local) != 0) return false;
  const MountNodeRef node = tree_.make(false);
  node->sizeBytes = content->sizeBytes();
  node->modified = content->modified().value_or(startTime_);
  node->content = std::move(content);
  node->isBehind = hidden != nullptr;
  if (hidden) tree_.remove(hidden);
  tree_.add(folder, node, name);
  return true;
}

/// Whether something that an earlier process left belongs below the folder at `path`, not shown yet.
bool MountedVolume::hasLeftBelow(const std::string& path) {
  const std::string key = volume_->pathKey(path);
  const auto isBelow = [&](const std::string& each) { return isPathAtOrBelow(volume_->pathKey(each), key); };
  const std::lock_guard lock(treeMutex_);
  if (std::any_of(leftLocals_.begin(), leftLocals_.end(),
                  [&](const UploadJournal::Local& local) { return isBelow(local.path); }))
    return true;
  const std::lock_guard waitingLock(waitingMutex_);
  return std::any_of(waiting_.begin(), waiting_.end(),
                     [&](const Waiting& waiting) { return waiting.left && isBelow(waiting.left->path); });
}

/// What earlier processes left at or below `from` and is not shown yet goes along with its folder.
void MountedVolume::moveLeft(const std::string& from, const std::string& to) {
  const std::string key = volume_->pathKey(from);
  const std::size_t depth = componentsOf(from).size();
  const auto moved = [&](std::string& path) {
    if (!isPathAtOrBelow(volume_->pathKey(path), key)) return false;
    const auto names = componentsOf(path);
    path = to;
    for (std::size_t i = depth; i < names.size(); ++i) path = appendingPathComponent(path, names[i]);
    return true;
  };
  const std::lock_guard lock(treeMutex_);  // while the entries are written: a listing would take them up
  for (UploadJournal::Local& local : leftLocals_)
    if (moved(local.path)) journal_->put(local, UploadJournal::Durability::process);
  const std::lock_guard waitingLock(waitingMutex_);
  for (Waiting& waiting : waiting_)
    if (waiting.left && moved(waiting.left->path))
      journal_->put(*waiting.left, UploadJournal::Durability::process);
}

// --- Watching

void MountedVolume::watch(const MountNodeRef& folder, const std::string& path) {
  const std::lock_guard watchLock(watchMutex_);
  auto item = std::make_shared<FSItem>(path, volume_);
  {
    const std::lock_guard lock(treeMutex_);
    if (folder->inside->watched) return;
    folder->inside->watched = item;
  }
  item->setIsDirectory(true);
  item->setChangeCallback(
      [inbox = inbox_, changed = std::weak_ptr<MountNode>(folder)](const auto&) { inbox->add(changed); });
  volume_->startWatchFolder(item);
}

void MountedVolume::unwatch(MountNode& folder) {
  const std::lock_guard watchLock(watchMutex_);
  std::shared_ptr<FSItem> item;
  {
    const std::lock_guard lock(treeMutex_);
    item = std::move(folder.inside->watched);
  }
  if (item) volume_->stopWatchFolder(item);
}

void MountedVolume::moveWatches(const std::vector<MountNodeRef>& folders) {
  for (const auto& folder : folders) {
    unwatch(*folder);
    if (const auto held = holdPath(folder)) watch(folder, held->path);
  }
}

void MountedVolume::refreshChangedFolders() {
  while (!isStopping_) {
    std::unordered_set<const MountNode*> done;
    for (const auto& changed : inbox_->take()) {
      const MountNodeRef folder = changed.lock();
      if (!folder || !done.insert(folder.get()).second) continue;
      {
        const std::lock_guard lock(treeMutex_);
        if (!tree_.holds(*folder)) continue;
        ++folder->inside->changes;  // also for a first listing that is under way: it may show what was before
        if (folder->inside->listing == MountNode::Inside::Listing::unknown) continue;
        folder->inside->listing = MountNode::Inside::Listing::outOfDate;
      }
      // Listed at once, not when somebody asks: nobody may ever ask, because the kernel answers.
      if (ensureListed(folder, [this] { return isStopping_.load(); }) != 0)
        kernel_.listingChanged(folder->id);
    }
    pause(inboxPause, [] { return false; });
  }
}
