#include "mount/OpenFiles.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "foundation/NSLog.h"
#include "mount/MountNames.h"

namespace kzv::mount {

using Access = FileContent::Access;

namespace {

Access accessOf(int flags) { return (flags & O_ACCMODE) == O_RDONLY ? Access::read : Access::write; }

}  // namespace

// --- Opening

OpenFiles::Opened OpenFiles::opened(const MountNodeRef& node, std::shared_ptr<FileContent> content,
                                    Access access, bool keepsCache) {
  auto file = std::make_unique<OpenFile>();
  file->node = node;
  file->content = std::move(content);
  file->access = access;
  return {std::move(file), lookups_.attributesOf(*node), keepsCache, node->isKernelSizeStale};
}

void OpenFiles::noteKernelSizeDropped(OpenFile& file) {
  const TreeLock lock(parts_.tree);
  file.node->isKernelSizeStale = false;
}

Result<OpenFiles::Opened> OpenFiles::open(NodeId number, int flags, const IsInterrupted& isInterrupted) {
  const auto node = lookups_.find(number);
  if (!node) return {{}, ENOENT};
  if (node->isFolder) return {{}, EISDIR};
  const Access access = accessOf(flags);
  bool wasCacheCurrent = false;
  {
    const TreeLock lock(parts_.tree);
    wasCacheCurrent = node->isKernelCacheCurrent;
  }
  const auto content = parts_.contents.use(node, access);
  if (!content) return {{}, ESTALE};  // replaced or removed since: the kernel looks the name up again
  const bool truncates = (flags & O_TRUNC) != 0 && access == Access::write;
  if (const int reason = prepare(node, content, access, truncates, isInterrupted)) {
    parts_.contents.removeUser(node, content, access);
    return {{}, reason};
  }
  const TreeLock lock(parts_.tree);
  return {opened(node, content, access, wasCacheCurrent), 0};
}

/// Makes the bytes available, unless the open truncates. They then stay available, whatever happens to the
/// file.
int OpenFiles::prepare(const MountNodeRef& node, const std::shared_ptr<FileContent>& content, Access access,
                       bool truncates, const IsInterrupted& isInterrupted) {
  if (truncates) {
    const auto held = parts_.paths.hold(node);
    if (!held) return ESTALE;
    if (const int reason = content->makeEmpty(parts_.contents.baseToReplace(node))) return reason;
    parts_.contents.noteWritten(node, content);
    return 0;
  }
  if (content->hasData()) return 0;
  const int reason = parts_.contents.fetch(node, content, isInterrupted);
  if (access == Access::write || (reason != EIO && reason != EBUSY)) return reason;
  // Without a connection, pages of this version in the kernel's cache can still be read; bytesOf() retries
  // for others.
  const TreeLock lock(parts_.tree);
  return node->isKernelCacheCurrent && !node->version.empty() ? 0 : reason;
}

Result<OpenFiles::Created> OpenFiles::create(NodeId folderId, const std::string& name, int flags,
                                             const IsInterrupted& isInterrupted) {
  const NameKind kind = kindOfName(*parts_.volume, name);
  if (const int reason = errnoOf(kind)) return {{}, reason};
  const auto folder = lookups_.find(folderId);
  const auto child = parts_.listings.child(folder, name, isInterrupted);
  if (child.error) return {{}, child.error};
  if (child.value) return openExisting(child.value, name, flags, isInterrupted);
  auto content = std::make_shared<FileContent>(parts_.journal);
  const int reason = kind == NameKind::localOnly ? content->makeLocalOnly()
                                                 : content->makeEmpty({WriteBase::Kind::nothing, {}});
  if (reason) return {{}, reason};
  const Access access = accessOf(flags);
  content->addUser(access);
  Created created;
  {
    const TreeLock lock(parts_.tree);
    if (!parts_.tree.contains(*folder)) return {{}, ENOENT};
    created.found.node = parts_.tree.child(*folder, name);  // a listing may have added it meanwhile
    if (!created.found.node) {
      const auto node = parts_.tree.make(false);
      node->modified = std::chrono::system_clock::now();
      node->isKernelCacheCurrent = true;
      node->content = content;
      parts_.tree.add(*folder, node, name);
      created.found = lookups_.found(node, name);
      created.opened = opened(node, content, access, true);
    }
  }
  if (!created.opened.file) return openExisting(created.found.node, name, flags, isInterrupted);
  if (kind == NameKind::localOnly) recordLocal(created.found.node, *content);
  return {std::move(created), 0};
}

/// Without a journal entry, a new local file would be lost at the end of this mount.
void OpenFiles::recordLocal(const MountNodeRef& node, FileContent& content) {
  const auto held = parts_.paths.hold(node);
  if (!held) return;
  if (const auto error = content.record(held->path, UploadJournal::Durability::process))
    NSLog(NSLogLevel::warning, "mount",
          held->path + " will be lost when this mount ends: " + error->localizedDescription());
}

Result<OpenFiles::Created> OpenFiles::openExisting(const MountNodeRef& node, const std::string& name,
                                                   int flags, const IsInterrupted& isInterrupted) {
  if (flags & O_EXCL) return {{}, EEXIST};
  Created created;
  {
    const TreeLock lock(parts_.tree);
    created.found = lookups_.found(node, name);
  }
  auto opened = open(node->id, flags, isInterrupted);
  if (opened.error) {
    lookups_.forget(node->id, 1);
    return {{}, opened.error};
  }
  created.found.attributes = opened.value.attributes;
  created.opened = std::move(opened.value);
  return {std::move(created), 0};
}

// --- Bytes

Result<FileContent::Bytes> OpenFiles::bytesOf(OpenFile& file, const IsInterrupted& isInterrupted) {
  // The kernel releases a file only after its reads are answered. ThreadSanitizer does not see that order,
  // but it sees the reference count.
  const auto content = file.content;
  if (auto bytes = content->bytes(); bytes.areAvailable()) return {std::move(bytes), 0};
  const int reason = parts_.contents.fetch(file.node, content, isInterrupted);
  if (reason) return {{}, reason == ENOENT ? EIO : reason};  // the file is open: it exists
  return {content->bytes(), 0};
}

int OpenFiles::write(OpenFile& file, const std::function<int(int descriptor, std::uint64_t sizeBytes)>& put,
                     const IsInterrupted& isInterrupted) {
  const auto node = file.node;
  const auto content = file.content;  // as in bytesOf
  if (const auto bytes = bytesOf(file, isInterrupted); bytes.error) return bytes.error;
  const int reason = content->write(put);
  parts_.contents.noteWritten(node, content);
  return reason;
}

int OpenFiles::checkRoom(NodeId number, const OpenFile* file, std::uint64_t sizeBytes) const {
  std::uint64_t currentBytes = 0;
  if (file && file->content->hasData()) {
    currentBytes = file->content->sizeBytes();
  } else {
    const TreeLock lock(parts_.tree);
    const auto node = parts_.tree.find(number);
    if (!node) return ENOENT;
    currentBytes = lookups_.attributesOf(*node).sizeBytes;
  }
  if (sizeBytes <= currentBytes) return 0;
  const auto freeBytes = parts_.journal->freeBytes();
  return freeBytes && sizeBytes - currentBytes > *freeBytes ? ENOSPC : 0;
}

int OpenFiles::truncate(NodeId number, OpenFile* file, std::uint64_t sizeBytes,
                        const IsInterrupted& isInterrupted) {
  if (const int reason = checkRoom(number, file, sizeBytes)) return reason;
  const auto cut = [&](int descriptor, std::uint64_t /*before*/) {
    return ::ftruncate(descriptor, static_cast<off_t>(sizeBytes)) == 0 ? 0 : errno;
  };
  if (file) return write(*file, cut, isInterrupted);
  auto opened = open(number, O_WRONLY | (sizeBytes == 0 ? O_TRUNC : 0), isInterrupted);
  if (opened.error) return opened.error;
  int reason = write(*opened.value.file, cut, isInterrupted);
  if (reason == 0) reason = flush(*opened.value.file, isInterrupted);
  release(std::move(opened.value.file));
  return reason;
}

int OpenFiles::setModified(NodeId number, NSDate::Time time) {
  std::shared_ptr<FileContent> content;
  {
    const TreeLock lock(parts_.tree);
    const auto node = parts_.tree.find(number);
    if (!node) return ENOENT;
    node->modified = time;
    content = node->content;
  }
  if (content) content->setModified(time);
  return 0;
}

// --- Closing

int OpenFiles::flush(OpenFile& file, const IsInterrupted& isInterrupted) {
  const auto content = file.content;  // as in bytesOf
  if (file.access != Access::write || !content->isUnsent()) return 0;
  if (content->isWritten() && content->writers() == 1)
    return parts_.uploader.send(file.node, content, isInterrupted);
  // Other writers have it open: the last one uploads. Or nothing was written yet through this of several
  // descriptors, as with a shell's redirection. The journal entry lets the bytes survive this process.
  if (const auto held = parts_.uploader.holdTarget(file.node, *content))
    content->record(held->path, UploadJournal::Durability::process);
  return 0;
}

int OpenFiles::sync(OpenFile& file, const IsInterrupted& isInterrupted) {
  if (file.access != Access::write) return 0;
  if (file.content->isLocalOnly()) return file.content->syncLocal();
  return parts_.uploader.send(file.node, file.content, isInterrupted);
}

void OpenFiles::release(std::unique_ptr<OpenFile> file) {
  FileContent& content = *file->content;
  content.removeUser(file->access);
  if (content.isUnsent() && content.writers() == 0) {
    if (content.isWritten()) {
      parts_.uploader.send(file->node, file->content, [] { return false; });
    } else if (const auto held = parts_.uploader.holdTarget(file->node, content)) {
      content.record(held->path, UploadJournal::Durability::process);
      parts_.queue.add(file->node, file->content, parts_.delays.emptyFile);
    } else {
      content.discard();
    }
  }
  parts_.contents.releaseUnused(file->node, file->content);
  Invalidations invalidations;
  {
    const TreeLock lock(parts_.tree);
    if (!parts_.tree.contains(*file->node) && !content.hasUsers())
      invalidations.contents.push_back(file->node->id);
  }
  invalidations.sendTo(parts_.kernel);
}

}  // namespace kzv::mount
