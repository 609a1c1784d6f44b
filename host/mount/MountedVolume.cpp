#include "host/mount/MountedVolume.h"

#include <algorithm>
#include <cerrno>

#include "foundation/DispatchQueue.h"
#include "foundation/NSLog.h"
#include "foundation/NSThread.h"
#include "foundation/Paths.h"
#include "host/mount/MountErrors.h"
#include "host/mount/MountedVolume_private.h"

using namespace std::chrono_literals;

MountedVolume::MountedVolume(std::shared_ptr<FSPlugin> volume, std::shared_ptr<UploadJournal> journal,
                             KernelCache& kernel, LinkSource links, IsLinked isLinked)
    : volume_(std::move(volume)),
      journal_(std::move(journal)),
      kernel_(kernel),
      links_(std::move(links)),
      isLinked_(std::move(isLinked)),
      tree_([this](std::string_view name) { return volume_->nameKey(name); }),
      inbox_(std::make_shared<Inbox>()) {}

MountedVolume::~MountedVolume() {
  stop();
  if (refresher_.joinable()) refresher_.join();
  if (sender_.joinable()) sender_.join();
  std::vector<MountNodeRef> watched;
  {
    const std::lock_guard lock(treeMutex_);
    MountTree::collectWatched(*tree_.root(), watched);
  }
  for (const auto& folder : watched) unwatch(*folder);
}

void MountedVolume::start() {
  // Before the first folder is listed, so that its listing can be kept; nobody waits for it.
  DispatchQueue::global().async([volume = volume_] { volume->pollForChanges(); });
  recoverRenames();
  leftLocals_ = journal_->locals();
  for (auto& upload : journal_->uploads())
    waiting_.push_back({nullptr, nullptr, std::move(upload), Clock::now()});
  refresher_ = std::thread([this] {
    setCurrentThreadName("kzv-refresh");
    refreshChangedFolders();
  });
  sender_ = std::thread([this] {
    setCurrentThreadName("kzv-send");
    sendWaiting();
  });
}

void MountedVolume::stop() {
  isStopping_ = true;
  inbox_->close();
  { const std::lock_guard lock(waitingMutex_); }  // nobody is between the look at isStopping_ and the wait
  waitingChanged_.notify_all();
}

bool MountedVolume::pause(std::chrono::milliseconds time, const IsInterrupted& isInterrupted) {
  constexpr auto step = 50ms;  // so soon an interruption is noticed
  const auto end = Clock::now() + time;
  std::unique_lock lock(waitingMutex_);
  while (!isStopping_ && !isInterrupted() && Clock::now() < end)
    waitingChanged_.wait_until(lock, std::min(end, Clock::now() + step), [&] { return isStopping_.load(); });
  return !isStopping_ && !isInterrupted();
}

MountNodeRef MountedVolume::find(NodeId number) const {
  const std::lock_guard lock(treeMutex_);
  return tree_.find(number);
}

NodeAttributes MountedVolume::attributesOf(const MountNode& node) const {
  const bool knowsBetter = node.content && node.content->hasData();
  return {node.id, node.isFolder, knowsBetter ? node.content->sizeBytes() : node.sizeBytes,
          node.id == MountTree::rootId ? startTime_ : node.modified};
}

/// Failure without a reason means that there is nothing, or that the account has been unlinked.
int MountedVolume::reasonOf(const NSErrorRef& error) const {
  return !error && isLinked_ && !isLinked_() ? EACCES : errnoOf(error);
}

/// The path of `node`, which stays what it is for as long as the answer lives; nothing when it is gone.
std::optional<MountedVolume::HeldPath> MountedVolume::holdPath(const MountNodeRef& node) {
  while (true) {
    HeldPath held;
    std::string key;
    {
      const std::lock_guard lock(treeMutex_);
      if (!tree_.holds(*node)) return std::nullopt;
      key = tree_.keyPathOf(*node);
    }
    held.hold = paths_.hold({{key, PathLocks::Kind::item}});
    const std::lock_guard lock(treeMutex_);
    if (!tree_.holds(*node)) return std::nullopt;
    if (tree_.keyPathOf(*node) != key) continue;  // it was moved while this waited
    held.path = MountTree::pathOf(*node);
    held.isRemote = node->isRemote;
    return held;
  }
}

void MountedVolume::tell(const Notices& notices) {
  for (const auto& [folder, name] : notices.entries) kernel_.entryChanged(folder, name);
  for (const NodeId file : notices.contents) kernel_.contentChanged(file);
  for (const NodeId folder : notices.listings) kernel_.listingChanged(folder);
}

// --- What waits to be sent

void MountedVolume::sendLater(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                              std::chrono::milliseconds delay) {
  {
    const std::lock_guard lock(waitingMutex_);
    const bool isKnown = std::any_of(waiting_.begin(), waiting_.end(),
                                     [&](const Waiting& waiting) { return waiting.content == content; });
    if (!isKnown) waiting_.push_back({node, content, std::nullopt, Clock::now() + delay});
  }
  waitingChanged_.notify_all();
}

void MountedVolume::sendWaiting() {
  std::unique_lock lock(waitingMutex_);
  while (!isStopping_) {
    const auto next = std::min_element(waiting_.begin(), waiting_.end(),
                                       [](const Waiting& a, const Waiting& b) { return a.due < b.due; });
    if (next == waiting_.end()) {
      waitingChanged_.wait(lock, [&] { return isStopping_ || !waiting_.empty(); });
      continue;
    }
    if (const auto due = next->due; due > Clock::now()) {
      waitingChanged_.wait_until(lock, due);
      continue;
    }
    ++sendingNow_;
    if (next->left && !std::exchange(next->isFolderListed, true)) {
      // Its folder's listing makes it a file like any other, which is there for everybody while it is sent.
      const std::string folder = deletingLastPathComponent(next->left->path);
      lock.unlock();
      showFolder(folder);
      lock.lock();
      --sendingNow_;
      continue;
    }
    Waiting waiting = std::move(*next);
    waiting_.erase(next);
    lock.unlock();
    const bool isDone = sendOne(waiting);
    lock.lock();
    --sendingNow_;
    if (!isDone) {
      waiting.due =
          Clock::now() + std::min<Clock::duration>(firstRetryDelay * (1 << std::min(waiting.failures, 8)),
                                                   longestRetryDelay);
      ++waiting.failures;
      waiting.isFolderListed = false;
      waiting_.push_back(std::move(waiting));
    }
    waitingChanged_.notify_all();
  }
}

/// True when nothing is left to do for it.
bool MountedVolume::sendOne(const Waiting& waiting) {
  const auto never = [] { return false; };
  if (waiting.left) return sendLeft(*waiting.left) == 0;
  const int reason = send(waiting.node, waiting.content, Manner::background, never);
  dropContent(waiting.node, waiting.content);
  // A writer sends when it closes.
  return reason == 0 && (!waiting.content->isUnsent() || waiting.content->writers() > 0);
}

/// Lists the folder at `path`, if it is there.
void MountedVolume::showFolder(const std::string& path) {
  const auto isInterrupted = [this] { return isStopping_.load(); };
  MountNodeRef folder = find(MountTree::rootId);
  for (const std::string& name : componentsOf(path)) {
    if (folder) folder = childOf(folder, name, isInterrupted).value;
  }
  if (folder && folder->isFolder) ensureListed(folder, isInterrupted);
}

/// Sends what an earlier process left where no folder shows it: deleted meanwhile, or something is in the
/// way.
int MountedVolume::sendLeft(const UploadJournal::Upload& left) {
  const PathLocks::Hold hold = paths_.hold({{volume_->pathKey(left.path), PathLocks::Kind::item}});
  const std::string data = journal_->dataPath(left.id);
  const auto source = NSURL::fileURLWithPath(data);
  std::optional<StoredFile> stored;
  UploadJournal::Upload failed = left;
  const int reason =
      attempt([] { return false; },
              [&](NSErrorRef* error) {
                stored = volume_->storeFile(
                    *source, left.path, left.base, [this](NSRange) { return !isStopping_; }, error);
                if (!stored && *error) failed.reason = (*error)->localizedDescription();
                return stored.has_value();
              });
  if (reason != 0) {
    if (failed.reason != left.reason) journal_->put(failed, UploadJournal::Durability::process);
    return reason;
  }
  journal_->forgetUpload(left.id);
  ::unlink(data.c_str());
  noteElsewhere(left.path, *stored);
  refreshSoon(deletingLastPathComponent(left.path));
  return 0;
}

/// Lists the folder at `path` anew, if it has been shown.
void MountedVolume::refreshSoon(const std::string& path) {
  const std::lock_guard lock(treeMutex_);
  MountNodeRef folder = tree_.root();
  for (const std::string& name : componentsOf(path)) {
    folder = folder->inside ? tree_.child(*folder, name) : nullptr;
    if (!folder) return;
  }
  inbox_->add(folder);
}

/// Tells the person when a file is kept under another name than the one it was saved as.
void MountedVolume::noteElsewhere(const std::string& path, const StoredFile& stored) {
  if (volume_->pathKey(stored.path) == volume_->pathKey(path)) return;
  NSLog(
      NSLogLevel::warning, "mount",
      path + " was changed elsewhere meanwhile; this machine's version is kept beside it as " + stored.path);
}

bool MountedVolume::flushJournal(std::chrono::milliseconds patience) {
  std::unique_lock lock(waitingMutex_);
  const auto now = Clock::now();
  for (Waiting& waiting : waiting_) waiting.due = now;
  waitingChanged_.notify_all();
  waitingChanged_.wait_for(lock, patience, [&] {  // each is tried once: then none is due
    const bool isDue =
        std::any_of(waiting_.begin(), waiting_.end(), [&](const Waiting& w) { return w.due <= now; });
    return isStopping_ || (!isDue && sendingNow_ == 0);
  });
  return waiting_.empty() && sendingNow_ == 0;
}

/// Finishes what a rename had begun when its process died: what was set aside goes back, unless the new item
/// is there.
void MountedVolume::recoverRenames() {
  const auto never = [] { return false; };
  for (const UploadJournal::Rename& rename : journal_->renames()) {
    NSErrorRef error;
    const bool isAside = volume_->attributesAtPath(rename.aside, &error) != nullptr;
    if (!isAside && reasonOf(error) != ENOENT) continue;  // not known now: the next start looks again
    int reason = 0;
    if (isAside) {
      error = nullptr;
      const bool isReplaced = volume_->attributesAtPath(rename.to, &error) != nullptr;
      if (!isReplaced && reasonOf(error) != ENOENT) continue;
      error = nullptr;
      const bool isStillThere = volume_->attributesAtPath(rename.from, &error) != nullptr;
      if (!isStillThere && reasonOf(error) != ENOENT) continue;
      // Something at the new place while the item is still at its old one was put there by another device:
      // then what was set aside stays beside it.
      if (!isReplaced) reason = moveRemote(rename.aside, rename.to, never);
      if (isReplaced && !isStillThere) reason = removeRemote(rename.aside, never);
    }
    if (reason == 0) journal_->forgetRename(rename.id);
  }
}
