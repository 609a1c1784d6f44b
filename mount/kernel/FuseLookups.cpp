// Callbacks that read the tree: names, attributes, folders, free space, extended attributes.
#include <cstring>
#include <vector>

#include <sys/statvfs.h>

#include "mount/kernel/FuseSession.h"

namespace kzv::mount {

namespace {

constexpr const char* revisionName = "user.kzv.rev";
constexpr const char* linkName = "user.kzv.link";

/// An open folder: a snapshot of its items, so that none is shown twice or left out.
struct OpenFolder {
  Mutex mutex;
  std::shared_ptr<const Lookups::Listing> listing KZV_GUARDED_BY(mutex);
};

NSDate::Time timeOf(const timespec& time) {
  using namespace std::chrono;
  return NSDate::Time(
      duration_cast<NSDate::Time::duration>(seconds(time.tv_sec) + nanoseconds(time.tv_nsec)));
}

// --- Names and attributes

void onLookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const auto use = folderUse(request, parent);
  answer(request, [&] {
    const auto found = volumeOf(request).lookups().lookup(nodeOf(parent), name, interruptionOf(request));
    if (found.error) return found.error;
    replyEntry(request, found.value, isOtherSpelling(parent) || found.value.isOtherSpelling);
    return answered;
  });
}

void onForget(fuse_req_t request, fuse_ino_t inode, std::uint64_t count) {
  volumeOf(request).lookups().forget(nodeOf(inode), count);
  fuse_reply_none(request);
}

void onForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
  for (std::size_t i = 0; i < count; ++i)
    volumeOf(request).lookups().forget(nodeOf(forgets[i].ino), forgets[i].nlookup);
  fuse_reply_none(request);
}

void onGetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info* /*info*/) {
  answer(request, [&] { return replyAttributes(request, inode); });
}

/// The volume keeps neither owners nor permissions. A mode is accepted and ignored, as by other file systems
/// without permissions, because programs that copy modes (tar, cp -a, rsync -a) would otherwise fail for each
/// read-only file. Bits that grant rights, and another owner, are refused: ignoring those could do harm.
bool asksForOtherRights(const FuseSession& session, const struct stat& wanted, int which) {
  constexpr mode_t grantsRights = S_ISUID | S_ISGID | S_ISVTX;
  if ((which & FUSE_SET_ATTR_MODE) && (wanted.st_mode & grantsRights) != 0) return true;
  return ((which & FUSE_SET_ATTR_UID) && wanted.st_uid != session.user) ||
         ((which & FUSE_SET_ATTR_GID) && wanted.st_gid != session.group);
}

void onSetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int which,
                     fuse_file_info* info) {
  answer(request, [&] {
    OpenFiles& files = volumeOf(request).files();
    const NodeId node = nodeOf(inode);
    if (asksForOtherRights(sessionOf(request), *wanted, which)) return EPERM;
    if (which & FUSE_SET_ATTR_SIZE) {
      auto* file = info ? &handleOf<OpenFile>(info) : nullptr;
      const auto sizeBytes = static_cast<std::uint64_t>(wanted->st_size);
      if (const int reason = files.truncate(node, file, sizeBytes, interruptionOf(request))) return reason;
      noteOtherSpellingWritten(request, inode);
    }
    if (which & (FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW)) {
      const bool isNow = (which & FUSE_SET_ATTR_MTIME_NOW) != 0;
      files.setModified(node, isNow ? std::chrono::system_clock::now() : timeOf(wanted->st_mtim));
    }
    return replyAttributes(request, inode);
  });
}

// --- Folders

void onOpenFolder(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
  answer(request, [&] {
    const auto listing =
        volumeOf(request).lookups().list(nodeOf(inode), fuse_req_ctx(request)->pid, interruptionOf(request));
    if (listing.error) return listing.error;
    auto folder = std::make_unique<OpenFolder>();
    {
      const MutexLock lock(folder->mutex);
      folder->listing = listing.value;
    }
    info->fh = reinterpret_cast<std::uintptr_t>(folder.get());
    info->cache_readdir = info->keep_cache = isOtherSpelling(inode) ? 0 : 1;
    if (fuse_reply_open(request, info) == 0) folder.release();  // NOLINT(bugprone-unused-return-value)
    return answered;
  });
}

void onReleaseFolder(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
  delete &handleOf<OpenFolder>(info);
  fuse_reply_err(request, 0);
}

void onSyncFolder(fuse_req_t request, fuse_ino_t /*inode*/, int /*onlyData*/, fuse_file_info* /*info*/) {
  fuse_reply_err(request, 0);  // changes are answered once the volume has made them
}

/// Reading starts again: shows the current items.
int rewind(fuse_req_t request, fuse_ino_t inode, OpenFolder& folder) {
  const auto listing =
      volumeOf(request).lookups().list(nodeOf(inode), fuse_req_ctx(request)->pid, interruptionOf(request));
  if (listing.error) return listing.error;
  const MutexLock lock(folder.mutex);
  folder.listing = listing.value;
  return 0;
}

/// Replies with as many items from `offset` on as fit. `add(buffer, size, index)` returns an item's size in
/// bytes; more than `size` means that it did not fit.
template <class Add>
void replyItems(fuse_req_t request, std::size_t size, std::size_t offset, std::size_t count, Add add) {
  std::vector<char> buffer(size);
  std::size_t used = 0;
  for (std::size_t index = offset; index < count; ++index) {
    const std::size_t bytes = add(buffer.data() + used, size - used, index);
    if (bytes > size - used) break;
    used += bytes;
  }
  fuse_reply_buf(request, buffer.data(), used);
}

constexpr std::size_t dots = 2;  // "." and ".." come first

template <class Add>
void readFolder(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, fuse_file_info* info,
                const Add& add) {
  answer(request, [&] {
    auto& folder = handleOf<OpenFolder>(info);
    if (offset == 0)
      if (const int reason = rewind(request, inode, folder)) return reason;
    std::shared_ptr<const Lookups::Listing> listing;
    {
      const MutexLock lock(folder.mutex);
      listing = folder.listing;
    }
    replyItems(request, size, static_cast<std::size_t>(offset), listing->size() + dots,
               [&](char* buffer, std::size_t room, std::size_t index) {
                 if (index < dots) return add(buffer, room, index, nullptr);
                 return add(buffer, room, index, &(*listing)[index - dots]);
               });
    return answered;
  });
}

const char* dotName(std::size_t index) { return index == 0 ? "." : ".."; }

void onReadFolder(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                  fuse_file_info* info) {
  readFolder(request, inode, size, offset, info,
             [&](char* buffer, std::size_t room, std::size_t index, const Lookups::ListedItem* item) {
               struct stat status {};
               status.st_ino = item ? inodeOf(item->node->id, isOtherSpelling(inode)) : inode;
               status.st_mode = !item || item->node->isFolder ? S_IFDIR : S_IFREG;
               const char* name = item ? item->name.c_str() : dotName(index);
               return fuse_add_direntry(request, buffer, room, name, &status, static_cast<off_t>(index + 1));
             });
}

void onReadFolderPlus(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                      fuse_file_info* info) {
  readFolder(
      request, inode, size, offset, info,
      [&](char* buffer, std::size_t room, std::size_t index, const Lookups::ListedItem* item) -> std::size_t {
        const auto next = static_cast<off_t>(index + 1);
        fuse_entry_param entry{};
        if (!item) {
          entry.attr.st_ino = inode;
          entry.attr.st_mode = S_IFDIR;
          return fuse_add_direntry_plus(request, buffer, room, dotName(index), &entry, next);
        }
        // Only an item that fits is shown, since showing it gives the kernel a reference.
        const std::size_t needed =
            fuse_add_direntry_plus(request, nullptr, 0, item->name.c_str(), &entry, next);
        if (needed > room) return needed;
        const auto attributes = volumeOf(request).lookups().showListed(*item);
        if (!attributes) return 0;  // gone since
        entry = sessionOf(request).entryOf(*attributes, isOtherSpelling(inode));
        return fuse_add_direntry_plus(request, buffer, room, item->name.c_str(), &entry, next);
      });
}

// --- Space and extended attributes

void onSpace(fuse_req_t request, fuse_ino_t /*inode*/) {
  answer(request, [&] {
    const auto space = volumeOf(request).space().space();
    if (space.error) return space.error;
    constexpr unsigned long unit = 4096;
    constexpr unsigned long longestName = 255;
    struct statvfs status {};
    status.f_bsize = status.f_frsize = unit;
    status.f_blocks = space.value.totalBytes / unit;
    status.f_bfree = status.f_bavail = space.value.freeBytes / unit;
    status.f_namemax = longestName;
    fuse_reply_statfs(request, &status);
    return answered;
  });
}

int replyText(fuse_req_t request, const std::string& text, std::size_t size) {
  if (size == 0) {
    fuse_reply_xattr(request, text.size());
  } else if (size < text.size()) {
    return ERANGE;
  } else {
    fuse_reply_buf(request, text.data(), text.size());
  }
  return answered;
}

void onGetExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size) {
  answer(request, [&] {
    Result<std::string> text{{}, ENODATA};
    Lookups& lookups = volumeOf(request).lookups();
    if (std::strcmp(name, revisionName) == 0) text = lookups.revision(nodeOf(inode));
    if (std::strcmp(name, linkName) == 0) text = lookups.publicLink(nodeOf(inode));
    return text.error ? text.error : replyText(request, text.value, size);
  });
}

// Writing creates the link, whatever the value: reading must not publish a file, and the kernel refuses
// writing if the mount is read-only.
void onSetExtended(fuse_req_t request, fuse_ino_t inode, const char* name, const char* /*value*/,
                   std::size_t /*size*/, int /*flags*/) {
  answer(request, [&] {
    if (std::strcmp(name, linkName) != 0) return EOPNOTSUPP;
    return volumeOf(request).lookups().makePublicLink(nodeOf(inode));
  });
}

// None is listed: programs that copy all listed attributes (rsync -X, cp -a) could neither set nor remove
// ours.
void onListExtended(fuse_req_t request, fuse_ino_t inode, std::size_t size) {
  answer(request, [&] {
    const auto attributes = volumeOf(request).lookups().attributes(nodeOf(inode));
    return attributes.error ? attributes.error : replyText(request, std::string(), size);
  });
}

}  // namespace

void addLookupCallbacks(fuse_lowlevel_ops& table) {
  table.lookup = onLookup;
  table.forget = onForget;
  table.forget_multi = onForgetMany;
  table.getattr = onGetAttributes;
  table.setattr = onSetAttributes;
  table.opendir = onOpenFolder;
  table.readdir = onReadFolder;
  table.readdirplus = onReadFolderPlus;
  table.releasedir = onReleaseFolder;
  table.fsyncdir = onSyncFolder;
  table.statfs = onSpace;
  table.getxattr = onGetExtended;
  table.listxattr = onListExtended;
  table.setxattr = onSetExtended;
}

}  // namespace kzv::mount
