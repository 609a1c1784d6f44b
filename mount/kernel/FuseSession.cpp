#include "mount/kernel/FuseSession.h"

namespace kzv::mount {

namespace {

constexpr blksize_t blockBytes = 128L * 1024;

timespec timespecOf(NSDate::Time time) {
  using namespace std::chrono;
  const auto whole = floor<seconds>(time);
  return {whole.time_since_epoch().count(), duration_cast<nanoseconds>(time - whole).count()};
}

double secondsToCache(const NodeAttributes& attributes, bool otherSpelling) {
  return attributes.isCacheable && !otherSpelling ? cacheSeconds : 0;
}

}  // namespace

struct stat FuseSession::statOf(const NodeAttributes& attributes, bool otherSpelling) const {
  struct stat status {};
  status.st_ino = inodeOf(attributes.id, otherSpelling);
  status.st_mode = attributes.isFolder ? S_IFDIR | (0777 & ~umask) : S_IFREG | (0666 & ~umask);
  status.st_nlink = 1;  // also for folders: their subfolders are not counted
  status.st_uid = user;
  status.st_gid = group;
  status.st_size = static_cast<off_t>(attributes.sizeBytes);
  status.st_blksize = blockBytes;
  status.st_blocks = static_cast<blkcnt_t>((attributes.sizeBytes + 511) / 512);
  status.st_mtim = status.st_ctim = status.st_atim = timespecOf(attributes.modified);
  return status;
}

fuse_entry_param FuseSession::entryOf(const NodeAttributes& attributes, bool otherSpelling) const {
  fuse_entry_param entry{};
  entry.ino = inodeOf(attributes.id, otherSpelling);
  entry.attr = statOf(attributes, otherSpelling);
  entry.attr_timeout = entry.entry_timeout = secondsToCache(attributes, otherSpelling);
  return entry;
}

void FuseSession::dropCachedBytes(fuse_ino_t inode, std::uint64_t offset) const {
  fuse_lowlevel_notify_inval_inode(fuse, inode, static_cast<off_t>(offset), 0);
}

/// The kernel is notified before the program's write returns, so that no read in between finds zeros there.
/// That blocks on reads of the last page, which other threads answer: so not all threads may block here. Nor
/// may a write through the page cache (O_APPEND was set after the open), for which the kernel has the page
/// locked.
void FuseSession::noteAppended(fuse_ino_t inode, std::uint64_t offset, bool isUncached) {
  const auto send = [this, inode, offset] {
    dropCachedBytes(inodeOf(nodeOf(inode), false), offset);
    if (isOtherSpelling(inode)) dropCachedBytes(inode, offset);
  };
  if (++appendNoticesInFlight <= RequestThreads::maxThreads / 4 && isUncached) {
    send();
  } else {
    notices.add(send);
  }
  --appendNoticesInFlight;
}

void replyEntry(fuse_req_t request, const FoundItem& found, bool otherSpelling) {
  const auto entry = sessionOf(request).entryOf(found.attributes, otherSpelling);
  if (fuse_reply_entry(request, &entry) != 0) volumeOf(request).lookups().forget(found.attributes.id, 1);
}

int replyAttributes(fuse_req_t request, fuse_ino_t inode) {
  const auto attributes = volumeOf(request).lookups().attributes(nodeOf(inode));
  if (attributes.error) return attributes.error;
  const auto status = sessionOf(request).statOf(attributes.value, isOtherSpelling(inode));
  fuse_reply_attr(request, &status, secondsToCache(attributes.value, isOtherSpelling(inode)));
  return answered;
}

void noteOtherSpellingChanged(fuse_req_t request, fuse_ino_t parent, const char* name) {
  if (!isOtherSpelling(parent)) return;
  KernelCache& kernel = *sessionOf(request).kernel;
  kernel.invalidateEntry(nodeOf(parent), name);
  kernel.invalidateListing(nodeOf(parent));
}

void noteOtherSpellingWritten(fuse_req_t request, fuse_ino_t inode) {
  if (isOtherSpelling(inode)) sessionOf(request).kernel->invalidateContent(nodeOf(inode));
}

}  // namespace kzv::mount
