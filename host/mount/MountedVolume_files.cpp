#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "foundation/NSDate.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/Paths.h"
#include "host/mount/MountNames.h"
#include "host/mount/MountedVolume.h"
#include "host/mount/MountedVolume_private.h"

using namespace std::chrono_literals;
using Access = FileContent::Access;

namespace {

/// A file that was made and closed without a byte is often a test whether one can write, or gets its bytes
/// from the next program: it is sent only if it is still there then.
constexpr auto emptyFileDelay = 1s;

}  // namespace

// --- Opening

/// The bytes of the file, with one user more; null when the name means another file now, or nothing.
std::shared_ptr<FileContent> MountedVolume::useContent(const MountNodeRef& node, Access access) {
  const std::lock_guard lock(treeMutex_);
  // A removed file can be opened again through a descriptor that is still open, but to no use be written.
  const bool isRemoved = !tree_.holds(*node);
  if (node->isReplaced || (isRemoved && (access == Access::write || !node->content))) return nullptr;
  if (!node->content) node->content = std::make_shared<FileContent>(volume_, journal_);
  node->content->addUser(access);
  return node->content;
}

Answer<std::shared_ptr<FileContent>> MountedVolume::useForReading(const MountNodeRef& node,
                                                                  const IsInterrupted& isInterrupted) {
  auto content = useContent(node, Access::read);
  if (!content) return {nullptr, ESTALE};
  const int reason = content->hasData() ? 0 : fetch(node, content, isInterrupted);
  if (reason == 0) return {std::move(content), 0};
  content->removeUser(Access::read);
  dropContent(node, content);
  return {nullptr, reason};
}

/// Releases bytes that nobody has open and that the service has.
void MountedVolume::dropContent(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) {
  std::vector<std::shared_ptr<FileContent>> unused;  // destroyed without the lock
  const bool mayKeep = content->isPrivate() && journal_->freeBytes().value_or(0) > minFreeToKeep;
  const std::lock_guard lock(treeMutex_);
  if (node->content != content || content->isUnsent()) return;
  const bool isThere = tree_.holds(*node);
  // What another device did meanwhile, to a file that was open for writing here, is shown from now on.
  if (isThere && (node->isBehind || !node->isRemote) && content->writers() == 0 && !content->isLocalOnly())
    inbox_->add(node->parent->shared_from_this());
  if (content->hasUsers()) return;
  if (content->isLocalOnly() && isThere) return;
  if (content->hasData()) node->sizeBytes = content->sizeBytes();
  const bool isCurrent = isThere && node->isRemote && !node->isBehind;
  if (isCurrent && mayKeep) return keepLocked(node, unused);
  unused.push_back(std::move(node->content));
}

/// Keeps the bytes of a file that was sent, and releases those of the ones closed longest ago.
void MountedVolume::keepLocked(const MountNodeRef& node, std::vector<std::shared_ptr<FileContent>>& unused) {
  std::deque<std::weak_ptr<MountNode>> kept{node};
  std::uint64_t bytes = node->content->sizeBytes();
  if (bytes > maxKeptBytes) unused.push_back(std::move(node->content));
  for (auto entry = kept_.rbegin(); entry != kept_.rend(); ++entry) {
    const MountNodeRef older = entry->lock();
    const bool isKept = older && older != node && older->content && !older->content->hasUsers() &&
                        !older->content->isUnsent() && !older->content->isLocalOnly();
    if (!isKept) continue;
    bytes += older->content->sizeBytes();
    if (kept.size() < maxKept && bytes <= maxKeptBytes) {
      kept.push_front(older);
    } else {
      older->sizeBytes = older->content->sizeBytes();
      unused.push_back(std::move(older->content));
    }
  }
  kept_ = std::move(kept);
}

MountedVolume::Opened MountedVolume::openedLocked(const MountNodeRef& node,
                                                  std::shared_ptr<FileContent> content, Access access,
                                                  bool keepsCache) {
  auto file = std::make_unique<OpenFile>();
  file->node = node;
  file->content = std::move(content);
  file->access = access;
  return {std::move(file), attributesOf(*node), keepsCache, node->isKernelBehind};
}

void MountedVolume::kernelCaughtUp(OpenFile& file) {
  const std::lock_guard lock(treeMutex_);
  file.node->isKernelBehind = false;
}

/// What takes the place of `node` replaces the version that was shown, and no other.
WriteBase MountedVolume::baseToReplace(const MountNodeRef& node) const {
  const std::lock_guard lock(treeMutex_);
  if (!node || !node->isRemote) return {WriteBase::Kind::nothing, {}};
  return baseOf(node->version);
}

Answer<MountedVolume::Opened> MountedVolume::open(NodeId number, int flags,
                                                  const IsInterrupted& isInterrupted) {
  const auto node = find(number);
  if (!node) return {{}, ENOENT};
  if (node->isFolder) return {{}, EISDIR};
  const Access access = (flags & O_ACCMODE) == O_RDONLY ? Access::read : Access::write;
  bool wasFresh = false;
  {
    const std::lock_guard lock(treeMutex_);
    wasFresh = node->isKernelFresh;
  }
  const auto content = useContent(node, access);
  if (!content) return {{}, ESTALE};  // gone since it was looked up: the kernel looks again
  const int reason =
      prepare(node, content, access, (flags & O_TRUNC) != 0 && access == Access::write, isInterrupted);
  if (reason != 0) {
    content->removeUser(access);
    dropContent(node, content);
    return {{}, reason};
  }
  const std::lock_guard lock(treeMutex_);
  return {openedLocked(node, content, access, wasFresh), 0};
}

/// Gets the bytes that an open needs: none when it throws them away. They are at hand from then on, whatever
/// happens to the file.
int MountedVolume::prepare(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                           Access access, bool truncates, const IsInterrupted& isInterrupted) {
  if (truncates) {
    const auto held = holdPath(node);
    if (!held) return ESTALE;
    if (const int reason = content->makeEmpty(baseToReplace(node))) return reason;
    noteWritten(node, content);
    return 0;
  }
  if (content->hasData()) return 0;
  const int reason = fetch(node, content, isInterrupted);
  if (access == Access::write || (reason != EIO && reason != EBUSY)) return reason;
  // Without a connection, what the kernel has of the version can still be read; the rest is asked for again.
  const std::lock_guard lock(treeMutex_);
  return node->isKernelFresh && !node->version.empty() ? 0 : reason;
}

/// Opens the version that the node shows, wherever the file is now.
int MountedVolume::fetch(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                         const IsInterrupted& isInterrupted) {
  const auto held = holdPath(node);
  return fetchFrom(held ? held->path : "", node, content, isInterrupted);
}

/// @param path  where the file is; empty: nowhere.
int MountedVolume::fetchFrom(const std::string& path, const MountNodeRef& node,
                             const std::shared_ptr<FileContent>& content,
                             const IsInterrupted& isInterrupted) {
  std::string version;
  std::string place = path;
  std::shared_ptr<FSReader> reader;
  {
    const std::lock_guard lock(treeMutex_);
    version = node->version;
    if (place.empty()) place = "/" + node->name;  // for error texts: the version says what is meant
    if (!version.empty() && node->sizeBytes == 0) reader = std::make_shared<EmptyReader>(version);
  }
  if (path.empty() && version.empty()) return ENOENT;
  const auto goesOn = [&](NSRange) { return !isStopping_ && !isInterrupted(); };
  const int reason = attempt(isInterrupted, [&](NSErrorRef* error) {
    if (!reader) reader = volume_->openReader(place, version, goesOn, error);
    return reader != nullptr;
  });
  if (reason) return reason;
  content->useReader(std::move(reader));
  Notices notices;
  {
    const std::lock_guard lock(treeMutex_);
    if (node->content == content) {
      if (node->sizeBytes != content->sizeBytes()) notices.contents.push_back(node->id);
      node->isKernelFresh = true;
    }
  }
  tell(notices);
  return 0;
}

/// Called before the version of an open file goes: afterwards it may be nowhere. The caller holds the path.
void MountedVolume::fetchForReaders(const MountNodeRef& node, const std::string& path,
                                    const IsInterrupted& isInterrupted) {
  const auto content = contentOf(node);
  if (content && content->hasUsers() && !content->hasData()) fetchFrom(path, node, content, isInterrupted);
}

Answer<MountedVolume::Created> MountedVolume::create(NodeId folderId, const std::string& name, int flags,
                                                     const IsInterrupted& isInterrupted) {
  const NameKind kind = kindOfName(*volume_, name);
  if (kind == NameKind::notAllowed) return {{}, EINVAL};
  if (kind == NameKind::tooLong) return {{}, ENAMETOOLONG};
  const auto folder = find(folderId);
  const auto child = childOf(folder, name, isInterrupted);
  if (child.error) return {{}, child.error};
  if (child.value) return openExisting(child.value, name, flags, isInterrupted);
  auto content = std::make_shared<FileContent>(volume_, journal_);
  const int reason = kind == NameKind::localOnly ? content->makeLocalOnly()
                                                 : content->makeEmpty({WriteBase::Kind::nothing, {}});
  if (reason) return {{}, reason};
  const Access access = (flags & O_ACCMODE) == O_RDONLY ? Access::read : Access::write;
  content->addUser(access);
  std::unique_lock lock(treeMutex_);
  if (!tree_.holds(*folder)) return {{}, ENOENT};
  if (const auto listed = tree_.child(*folder, name)) {  // a listing was faster
    lock.unlock();
    return openExisting(listed, name, flags, isInterrupted);
  }
  const auto node = tree_.make(false);
  node->modified = std::chrono::system_clock::now();
  node->isKernelFresh = true;
  node->content = content;
  tree_.add(*folder, node, name);
  Created created;
  created.found = foundLocked(node, name);
  created.opened = openedLocked(node, content, access, true);
  lock.unlock();
  if (kind == NameKind::localOnly) recordLocal(node, *content);
  return {std::move(created), 0};
}

/// Notes where a new file that stays here belongs. Without that it lasts only as long as this mount.
void MountedVolume::recordLocal(const MountNodeRef& node, FileContent& content) {
  const auto held = holdPath(node);
  if (!held) return;
  if (const auto error = content.record(held->path, UploadJournal::Durability::process))
    NSLog(NSLogLevel::warning, "mount",
          held->path + " will be gone after this mount: " + error->localizedDescription());
}

Answer<MountedVolume::Created> MountedVolume::openExisting(const MountNodeRef& node, const std::string& name,
                                                           int flags, const IsInterrupted& isInterrupted) {
  if (flags & O_EXCL) return {{}, EEXIST};
  Created created;
  {
    const std::lock_guard lock(treeMutex_);
    created.found = foundLocked(node, name);
  }
  auto opened = open(node->id, flags, isInterrupted);
  if (opened.error) {
    forget(node->id, 1);
    return {{}, opened.error};
  }
  created.found.attributes = opened.value.attributes;
  created.opened = std::move(opened.value);
  return {std::move(created), 0};
}

// --- Bytes

Answer<FileContent::Bytes> MountedVolume::bytesOf(OpenFile& file, const IsInterrupted& isInterrupted) {
  // The kernel releases a file only after its reads are answered. ThreadSanitizer does not see that order,
  // but sees that of the reference count.
  const auto content = file.content;
  if (auto bytes = content->bytes(); bytes.areAtHand()) return {std::move(bytes), 0};
  const int reason = fetch(file.node, content, isInterrupted);
  if (reason) return {{}, reason == ENOENT ? EIO : reason};  // the file is open: it is there
  return {content->bytes(), 0};
}

void MountedVolume::noteWritten(const MountNodeRef& node, const std::shared_ptr<FileContent>& content) {
  const std::lock_guard lock(treeMutex_);
  if (node->content != content) return;
  node->modified = std::chrono::system_clock::now();
  node->isKernelFresh = true;
}

int MountedVolume::write(OpenFile& file,
                         const std::function<int(int descriptor, std::uint64_t sizeBytes)>& put,
                         const IsInterrupted& isInterrupted) {
  const auto node = file.node;
  const auto content = file.content;  // as in bytesOf
  if (const auto bytes = bytesOf(file, isInterrupted); bytes.error) return bytes.error;
  const int reason = content->write(put);
  noteWritten(node, content);
  return reason;
}

int MountedVolume::checkRoom(NodeId number, const OpenFile* file, std::uint64_t sizeBytes) const {
  std::uint64_t currentBytes = 0;
  if (file && file->content->hasData()) {
    currentBytes = file->content->sizeBytes();
  } else {
    const std::lock_guard lock(treeMutex_);
    const auto node = tree_.find(number);
    if (!node) return ENOENT;
    currentBytes = attributesOf(*node).sizeBytes;
  }
  if (sizeBytes <= currentBytes) return 0;
  const auto freeBytes = journal_->freeBytes();
  return freeBytes && sizeBytes - currentBytes > *freeBytes ? ENOSPC : 0;
}

int MountedVolume::truncate(NodeId number, OpenFile* file, std::uint64_t sizeBytes,
                            const IsInterrupted& isInterrupted) {
  if (const int reason = checkRoom(number, file, sizeBytes)) return reason;
  const auto cut = [&](int descriptor, std::uint64_t /*before*/) {
    return ::ftruncate(descriptor, static_cast<off_t>(sizeBytes)) == 0 ? 0 : errno;
  };
  if (file) return write(*file, cut, isInterrupted);
  // Nobody has it open for this: what is cut is sent at once, as no close will come.
  auto opened = open(number, O_WRONLY | (sizeBytes == 0 ? O_TRUNC : 0), isInterrupted);
  if (opened.error) return opened.error;
  int reason = write(*opened.value.file, cut, isInterrupted);
  if (reason == 0) reason = flush(*opened.value.file, isInterrupted);
  release(std::move(opened.value.file));
  return reason;
}

int MountedVolume::setModified(NodeId number, NSDate::Time time) {
  std::shared_ptr<FileContent> content;
  {
    const std::lock_guard lock(treeMutex_);
    const auto node = tree_.find(number);
    if (!node) return ENOENT;
    node->modified = time;
    content = node->content;
  }
  if (content) content->setModified(time);
  return 0;
}

int MountedVolume::flush(OpenFile& file, const IsInterrupted& isInterrupted) {
  const auto shared = file.content;  // as in bytesOf
  FileContent& content = *shared;
  if (file.access != Access::write || !content.isUnsent()) return 0;
  if (content.isWritten() && content.writers() == 1)
    return send(file.node, file.content, Manner::foreground, isInterrupted);
  // Others write, too: the last one sends. Or it is one of several descriptors of a file that was opened to
  // be written (a shell's redirection): its bytes are still to come, or never. What is there survives this
  // process.
  if (const auto held = holdPlace(file.node, content))
    content.record(held->path, UploadJournal::Durability::process);
  return 0;
}

int MountedVolume::sync(OpenFile& file, const IsInterrupted& isInterrupted) {
  if (file.access != Access::write) return 0;
  if (file.content->isLocalOnly()) return file.content->syncLocal();
  return send(file.node, file.content, Manner::foreground, isInterrupted);
}

void MountedVolume::release(std::unique_ptr<OpenFile> file) {
  FileContent& content = *file->content;
  content.removeUser(file->access);
  if (content.isUnsent() && content.writers() == 0) {
    if (content.isWritten()) {
      send(file->node, file->content, Manner::foreground, [] { return false; });
    } else if (const auto held = holdPlace(file->node, content)) {
      content.record(held->path, UploadJournal::Durability::process);
      sendLater(file->node, file->content, emptyFileDelay);
    } else {
      content.discard();
    }
  }
  dropContent(file->node, file->content);
  Notices notices;
  {
    const std::lock_guard lock(treeMutex_);
    if (!tree_.holds(*file->node) && !content.hasUsers()) notices.contents.push_back(file->node->id);
  }
  tell(notices);
}

// --- Sending

/// The path that the bytes are sent to; nothing when they are to be sent no more.
std::optional<MountedVolume::HeldPath> MountedVolume::holdPlace(const MountNodeRef& node,
                                                                const FileContent& content) {
  HeldPath held;
  held.path = content.elsewhere();
  if (held.path.empty()) return holdPath(node);
  held.hold = paths_.hold({{volume_->pathKey(held.path), PathLocks::Kind::item}});
  return held;
}

int MountedVolume::send(const MountNodeRef& node, const std::shared_ptr<FileContent>& content, Manner manner,
                        const IsInterrupted& isInterrupted) {
  const auto held = holdPlace(node, *content);
  if (!held) {
    content->discard();  // removed while it was open: nobody will miss it
    return 0;
  }
  const bool isBackground = manner == Manner::background;
  const auto sending = content->beginSending(isBackground);
  if (!sending) return 0;
  const std::string path = held->path;
  if (const auto error = content->record(path, UploadJournal::Durability::process))
    NSLog(NSLogLevel::warning, "mount",
          "cannot note that " + path + " is to be sent: " + error->localizedDescription());
  const auto source = NSURL::fileURLWithPath(journal_->dataPath(sending->id));
  const auto goesOn = [&](NSRange) {
    return !isStopping_ && !isInterrupted() && !(isBackground && content->isWanted());
  };
  std::optional<StoredFile> stored;
  std::string failure;
  const int reason = attempt(isInterrupted, [&](NSErrorRef* error) {
    stored = volume_->storeFile(*source, path, sending->base, goesOn, error);
    if (!stored) failure = *error ? (*error)->localizedDescription() : "the account is not there any more";
    return stored.has_value();
  });
  if (reason == 0) {
    if (content->elsewhere().empty()) {
      noteStored(node, content, path, *stored);
    } else {
      content->setElsewhere(stored->path);
      refreshSoon(deletingLastPathComponent(stored->path));
    }
    content->endSending(baseOf(stored->revision.value_or("")));
    return 0;
  }
  content->record(path, UploadJournal::Durability::power, failure);
  content->endSending(std::nullopt);
  if (!isBackground && !isStopping_) {
    NSLog(NSLogLevel::warning, "mount",
          path + " could not be sent (" + failure + "); it is kept and will be tried again");
    sendLater(node, content, firstRetryDelay);
  }
  return reason;
}

void MountedVolume::noteStored(const MountNodeRef& node, const std::shared_ptr<FileContent>& content,
                               const std::string& path, const StoredFile& stored) {
  noteElsewhere(path, stored);
  const bool isElsewhere = volume_->pathKey(stored.path) != volume_->pathKey(path);
  // From what the volume has just been told: asks nobody.
  const auto attributes = isElsewhere ? nullptr : volume_->attributesAtPath(path, nullptr);
  const auto date = attributes ? as<NSDate>(attributes->objectForKey(NSFileModificationDate)) : nullptr;
  Notices notices;
  {
    const std::lock_guard lock(treeMutex_);
    node->isRemote = true;
    if (!node->parent) return;
    MountNode& folder = *node->parent;
    ++folder.inside->changes;
    if (!isElsewhere) {
      node->version = stored.revision.value_or("");
      node->sizeBytes = content->sizeBytes();
      if (date) node->listedModified = date->time();
      return;
    }
    // The name belongs to the other version. Who has this one open goes on with it beside that one.
    content->setElsewhere(stored.path);
    notices.contents.push_back(node->id);
    notices.listings.push_back(folder.id);
    tree_.remove(node);
    node->isReplaced = true;
    folder.inside->listing = MountNode::Inside::Listing::outOfDate;
    inbox_->add(folder.shared_from_this());
  }
  tell(notices);
}
