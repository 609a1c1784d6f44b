#define FUSE_USE_VERSION 312
#include "host/mount/FuseServer.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <fuse3/fuse_lowlevel.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/Descriptor.h"
#include "foundation/Fatal.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSLog.h"
#include "foundation/NSString.h"
#include "foundation/NSThread.h"
#include "host/mount/MountErrors.h"

namespace {

/// The kernel may keep what it is told: it hears of every change.
constexpr double keptSeconds = 24 * 3600;
constexpr unsigned transferBytes = 1U << 20;
constexpr std::size_t maxThreads = 64;
constexpr blksize_t blockBytes = 128L * 1024;

constexpr const char* revisionName = "user.kzv.rev";
constexpr const char* linkName = "user.kzv.link";

// Numbers. The root is 1 on both sides; else the last bit says "another spelling".
bool isOtherSpelling(fuse_ino_t number) { return number != FUSE_ROOT_ID && (number & 1) != 0; }
NodeId nodeOf(fuse_ino_t number) { return number == FUSE_ROOT_ID ? MountTree::rootId : number >> 1; }
fuse_ino_t numberOf(NodeId node, bool otherSpelling) {
  return node == MountTree::rootId ? FUSE_ROOT_ID : (node << 1) | (otherSpelling ? 1 : 0);
}

/// An open folder: what it held when reading began, so that nothing is shown twice or left out.
struct OpenFolder {
  std::shared_ptr<const MountedVolume::Listing> listing;
  std::mutex mutex;  // guards listing
};

template <class Handle>
Handle& handleOf(const fuse_file_info* info) {
  return *reinterpret_cast<Handle*>(info->fh);  // NOLINT(performance-no-int-to-ptr): it was made from one
}

/// How long news of an entry wait for requests in its folder to end. Long: what is opened by a name that
/// means something else by now is looked up again anyway (ESTALE), while a process that is killed with such
/// news on their way leaves programs hanging until `umount -f`.
constexpr std::chrono::seconds noticePatience{60};

timespec timespecOf(NSDate::Time time) {
  using namespace std::chrono;
  const auto whole = floor<seconds>(time);
  return {whole.time_since_epoch().count(), duration_cast<nanoseconds>(time - whole).count()};
}

NSDate::Time timeOf(const timespec& time) {
  using namespace std::chrono;
  return NSDate::Time(
      duration_cast<NSDate::Time::duration>(seconds(time.tv_sec) + nanoseconds(time.tv_nsec)));
}

NSErrorRef mountError(int reason, std::string text) {
  return std::make_shared<NSError>(std::string(NSPOSIXErrorDomain), reason,
                                   NSDictionary::with({{NSLocalizedDescriptionKey, str(std::move(text))}}));
}

}  // namespace

struct FuseServer::Session {
  fuse_session* fuse = nullptr;
  MountedVolume* volume = nullptr;  // while serving
  KernelCache* kernel = nullptr;
  const uid_t user = ::getuid();
  const gid_t group = ::getgid();
  mode_t umask = 022;
  const Descriptor stopEvent{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::string folder;

  // Threads that serve: one waits for the next request, the others work or wait for their turn.
  std::mutex turnMutex;  // held by the one that waits for the kernel
  std::mutex threadsMutex;
  std::vector<std::thread> threads;  // guarded by threadsMutex
  std::atomic<std::size_t> idle{0};
  std::atomic<bool> isOver{false};

  // What the kernel has to be told. Of an entry it wants to be told while no request works in the folder;
  // until then the one who tells hangs in the kernel, where not even a kill of this process ends it. So such
  // a notice waits here for its folder, though not for ever.
  struct Notice {
    NodeId folder = 0;  // that the kernel must hold for it; 0: none
    std::function<void()> tell;
    std::chrono::steady_clock::time_point latest;
  };
  std::mutex noticesMutex;
  std::condition_variable noticesChanged;
  std::deque<Notice> notices;             // guarded by noticesMutex
  std::map<NodeId, int> foldersWorkedIn;  // guarded by noticesMutex: how many requests
  bool isTelling = true;                  // guarded by noticesMutex
  std::thread teller;
  std::atomic<std::size_t> tellingOfAppends{0};

  void work();
  void addThread();
  void tellKernel();
  void notice(NodeId folder, std::function<void()> tell);
  std::deque<Notice>::iterator nextNotice();
  bool waitForRequest() const;
  void bytesAppended(fuse_ino_t number, std::uint64_t offset, bool isUncached);

  mode_t modeOf(bool isFolder) const {
    return isFolder ? S_IFDIR | (0777 & ~umask) : S_IFREG | (0666 & ~umask);
  }
  struct stat statOf(const NodeAttributes& attributes, bool otherSpelling) const {
    struct stat status {};
    status.st_ino = numberOf(attributes.id, otherSpelling);
    status.st_mode = modeOf(attributes.isFolder);
    status.st_nlink = 1;  // for a folder: nobody counts its sub-folders
    status.st_uid = user;
    status.st_gid = group;
    status.st_size = static_cast<off_t>(attributes.sizeBytes);
    status.st_blksize = blockBytes;
    status.st_blocks = static_cast<blkcnt_t>((attributes.sizeBytes + 511) / 512);
    status.st_mtim = status.st_ctim = status.st_atim = timespecOf(attributes.modified);
    return status;
  }
  fuse_entry_param entryOf(const NodeAttributes& attributes, bool otherSpelling) const {
    fuse_entry_param entry{};
    entry.ino = numberOf(attributes.id, otherSpelling);
    entry.attr = statOf(attributes, otherSpelling);
    entry.attr_timeout = entry.entry_timeout = otherSpelling ? 0 : keptSeconds;
    return entry;
  }
};

namespace {

using Session = FuseServer::Session;

Session& sessionOf(fuse_req_t request) { return *static_cast<Session*>(fuse_req_userdata(request)); }
MountedVolume& volumeOf(fuse_req_t request) { return *sessionOf(request).volume; }
IsInterrupted interruptionOf(fuse_req_t request) {
  return [request] { return fuse_req_interrupted(request) != 0; };
}

/// Runs one operation; what it throws becomes an errno value. `operation` answers the request itself, or
/// returns what to answer it with.
template <class Operation>
void answer(fuse_req_t request, Operation&& operation) noexcept {
  int reason = EIO;
  try {
    reason = operation();
  } catch (const std::bad_alloc&) {
    reason = ENOMEM;
  } catch (const std::exception& problem) {
    NSLog(NSLogLevel::error, "mount", problem.what());
  }
  if (reason >= 0) fuse_reply_err(request, reason);
}
constexpr int answered = -1;

/// Says, while it lives, that a request works in a folder.
class WorksIn {
 public:
  WorksIn(fuse_req_t request, fuse_ino_t folder) : session_(sessionOf(request)), folder_(nodeOf(folder)) {
    const std::lock_guard lock(session_.noticesMutex);
    ++session_.foldersWorkedIn[folder_];
  }
  WorksIn(const WorksIn&) = delete;
  WorksIn& operator=(const WorksIn&) = delete;
  ~WorksIn() {
    {
      const std::lock_guard lock(session_.noticesMutex);
      if (const auto found = session_.foldersWorkedIn.find(folder_); --found->second == 0)
        session_.foldersWorkedIn.erase(found);
    }
    session_.noticesChanged.notify_one();
  }

 private:
  Session& session_;
  const NodeId folder_;
};

void replyEntry(fuse_req_t request, const MountedVolume::Found& found, bool otherSpelling) {
  const auto entry = sessionOf(request).entryOf(found.attributes, otherSpelling);
  if (fuse_reply_entry(request, &entry) != 0) volumeOf(request).forget(found.attributes.id, 1);
}

// --- Looking

void onInit(void* /*user*/, fuse_conn_info* connection) {
  const auto want = [&](unsigned capability) {
    if (connection->capable & capability) connection->want |= capability;
  };
  want(FUSE_CAP_SPLICE_READ);
  want(FUSE_CAP_SPLICE_WRITE);
  want(FUSE_CAP_SPLICE_MOVE);
  want(FUSE_CAP_ATOMIC_O_TRUNC);
  want(FUSE_CAP_READDIRPLUS);
  want(FUSE_CAP_PARALLEL_DIROPS);
  want(FUSE_CAP_EXPLICIT_INVAL_DATA);
  connection->want &= ~(FUSE_CAP_AUTO_INVAL_DATA | FUSE_CAP_READDIRPLUS_AUTO);
  connection->max_write = transferBytes;
  connection->max_readahead = transferBytes;
}

void onLookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const WorksIn works(request, parent);
  answer(request, [&] {
    const auto found = volumeOf(request).lookup(nodeOf(parent), name, interruptionOf(request));
    if (found.error) return found.error;
    replyEntry(request, found.value, isOtherSpelling(parent) || found.value.isOtherSpelling);
    return answered;
  });
}

void onForget(fuse_req_t request, fuse_ino_t node, std::uint64_t count) {
  volumeOf(request).forget(nodeOf(node), count);
  fuse_reply_none(request);
}

void onForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
  for (std::size_t i = 0; i < count; ++i)
    volumeOf(request).forget(nodeOf(forgets[i].ino), forgets[i].nlookup);
  fuse_reply_none(request);
}

int replyAttributes(fuse_req_t request, fuse_ino_t node) {
  const auto attributes = volumeOf(request).attributes(nodeOf(node));
  if (attributes.error) return attributes.error;
  const auto status = sessionOf(request).statOf(attributes.value, isOtherSpelling(node));
  fuse_reply_attr(request, &status, isOtherSpelling(node) ? 0 : keptSeconds);
  return answered;
}

void onGetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* /*info*/) {
  answer(request, [&] { return replyAttributes(request, node); });
}

/// The volume keeps neither owners nor permissions. A mode is accepted and forgotten, as other file systems
/// without permissions do, because programs that copy modes (tar, cp -a, rsync -a) would otherwise fail for
/// each read-only file. Bits that grant rights, and another owner, are refused: forgetting those could harm.
bool asksForOtherRights(const Session& session, const struct stat& wanted, int which) {
  constexpr mode_t grantsRights = S_ISUID | S_ISGID | S_ISVTX;
  if ((which & FUSE_SET_ATTR_MODE) && (wanted.st_mode & grantsRights) != 0) return true;
  return ((which & FUSE_SET_ATTR_UID) && wanted.st_uid != session.user) ||
         ((which & FUSE_SET_ATTR_GID) && wanted.st_gid != session.group);
}

/// What was written through another spelling of the file's name is not what the kernel keeps under its own.
void noticeOtherBytes(fuse_req_t request, fuse_ino_t node) {
  if (isOtherSpelling(node)) sessionOf(request).kernel->contentChanged(nodeOf(node));
}

void onSetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                     fuse_file_info* info) {
  answer(request, [&] {
    MountedVolume& volume = volumeOf(request);
    const NodeId id = nodeOf(node);
    if (asksForOtherRights(sessionOf(request), *wanted, which)) return EPERM;
    if (which & FUSE_SET_ATTR_SIZE) {
      auto* file = info ? &handleOf<OpenFile>(info) : nullptr;
      const auto sizeBytes = static_cast<std::uint64_t>(wanted->st_size);
      if (const int reason = volume.truncate(id, file, sizeBytes, interruptionOf(request))) return reason;
      noticeOtherBytes(request, node);
    }
    if (which & (FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW)) {
      const bool isNow = (which & FUSE_SET_ATTR_MTIME_NOW) != 0;
      volume.setModified(id, isNow ? std::chrono::system_clock::now() : timeOf(wanted->st_mtim));
    }
    return replyAttributes(request, node);
  });
}

void onOpenFolder(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  answer(request, [&] {
    const auto listing = volumeOf(request).list(nodeOf(node), interruptionOf(request));
    if (listing.error) return listing.error;
    auto folder = std::make_unique<OpenFolder>();
    folder->listing = listing.value;
    info->fh = reinterpret_cast<std::uintptr_t>(folder.get());
    info->cache_readdir = info->keep_cache = isOtherSpelling(node) ? 0 : 1;
    if (fuse_reply_open(request, info) == 0) folder.release();  // NOLINT(bugprone-unused-return-value)
    return answered;
  });
}

void onReleaseFolder(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info) {
  delete &handleOf<OpenFolder>(info);
  fuse_reply_err(request, 0);
}

/// Reading begins anew: what has changed since the folder was opened is shown.
int rewind(fuse_req_t request, fuse_ino_t node, OpenFolder& folder) {
  const auto listing = volumeOf(request).list(nodeOf(node), interruptionOf(request));
  if (listing.error) return listing.error;
  const std::lock_guard lock(folder.mutex);
  folder.listing = listing.value;
  return 0;
}

/// Fills one answer with as many items from `offset` on as it holds. `add(buffer, size, index)` gives the
/// bytes that an item takes; more than there are means that it did not fit.
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
void readFolder(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info,
                const Add& add) {
  answer(request, [&] {
    auto& folder = handleOf<OpenFolder>(info);
    if (offset == 0)
      if (const int reason = rewind(request, node, folder)) return reason;
    std::shared_ptr<const MountedVolume::Listing> listing;
    {
      const std::lock_guard lock(folder.mutex);
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

void onReadFolder(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info) {
  readFolder(request, node, size, offset, info,
             [&](char* buffer, std::size_t room, std::size_t index, const MountedVolume::ListedItem* item) {
               struct stat status {};
               status.st_ino = item ? numberOf(item->node->id, isOtherSpelling(node)) : node;
               status.st_mode = !item || item->node->isFolder ? S_IFDIR : S_IFREG;
               const char* name = item ? item->name.c_str() : dotName(index);
               return fuse_add_direntry(request, buffer, room, name, &status, static_cast<off_t>(index + 1));
             });
}

void onReadFolderPlus(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                      fuse_file_info* info) {
  readFolder(request, node, size, offset, info,
             [&](char* buffer, std::size_t room, std::size_t index,
                 const MountedVolume::ListedItem* item) -> std::size_t {
               const auto next = static_cast<off_t>(index + 1);
               fuse_entry_param entry{};
               if (!item) {
                 entry.attr.st_ino = node;
                 entry.attr.st_mode = S_IFDIR;
                 return fuse_add_direntry_plus(request, buffer, room, dotName(index), &entry, next);
               }
               // Told only if it fits: what the kernel is told it gives back one day.
               const std::size_t needed =
                   fuse_add_direntry_plus(request, nullptr, 0, item->name.c_str(), &entry, next);
               if (needed > room) return needed;
               MountedVolume& volume = volumeOf(request);
               const auto attributes = volume.showListed(*item);
               if (!attributes) return 0;  // gone since
               entry = sessionOf(request).entryOf(*attributes, isOtherSpelling(node));
               return fuse_add_direntry_plus(request, buffer, room, item->name.c_str(), &entry, next);
             });
}

void onSpace(fuse_req_t request, fuse_ino_t /*node*/) {
  answer(request, [&] {
    const auto space = volumeOf(request).space();
    if (space.error) return space.error;
    constexpr unsigned long unit = 4096;
    constexpr unsigned long longestName = 255;
    struct statvfs status {};
    status.f_bsize = status.f_frsize = unit;
    status.f_blocks = space.value.first / unit;
    status.f_bfree = status.f_bavail = space.value.second / unit;
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

void onGetExtra(fuse_req_t request, fuse_ino_t node, const char* name, std::size_t size) {
  answer(request, [&] {
    Answer<std::string> text{{}, ENODATA};
    if (std::strcmp(name, revisionName) == 0) text = volumeOf(request).revision(nodeOf(node));
    if (std::strcmp(name, linkName) == 0) text = volumeOf(request).publicLink(nodeOf(node));
    return text.error ? text.error : replyText(request, text.value, size);
  });
}

// Writing makes the link, whatever the value: reading must not publish a file, and writing is refused by the
// kernel where the mount is read-only.
void onSetExtra(fuse_req_t request, fuse_ino_t node, const char* name, const char* /*value*/,
                std::size_t /*size*/, int /*flags*/) {
  answer(request, [&] {
    if (std::strcmp(name, linkName) != 0) return EOPNOTSUPP;
    return volumeOf(request).makePublicLink(nodeOf(node));
  });
}

// None is listed: programs that copy all listed attributes (rsync -X, cp -a) could neither set nor remove
// ours.
void onListExtra(fuse_req_t request, fuse_ino_t node, std::size_t size) {
  answer(request, [&] {
    const auto attributes = volumeOf(request).attributes(nodeOf(node));
    return attributes.error ? attributes.error : replyText(request, std::string(), size);
  });
}

/// What was changed through another spelling of the folder's name is news to the kernel under its own.
void noticeOtherSpelling(fuse_req_t request, fuse_ino_t parent, const char* name) {
  if (!isOtherSpelling(parent)) return;
  KernelCache& kernel = *sessionOf(request).kernel;
  kernel.entryChanged(nodeOf(parent), name);
  kernel.listingChanged(nodeOf(parent));
}

// --- Files

void fillOpened(fuse_file_info* info, MountedVolume::Opened& opened, bool otherSpelling) {
  info->fh = reinterpret_cast<std::uintptr_t>(opened.file.get());
  // Two inodes of one file have two caches: past the one under another spelling.
  // Appends go to the file's real end, wherever the kernel believes it to be: not through its page cache.
  opened.file->isUncached = otherSpelling || (info->flags & O_APPEND) != 0;
  info->direct_io = opened.file->isUncached ? 1 : 0;
  info->keep_cache = opened.keepsCache && !otherSpelling ? 1 : 0;
}

void onOpen(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
  answer(request, [&] {
    auto opened = volumeOf(request).open(nodeOf(node), info->flags, interruptionOf(request));
    if (opened.error) return opened.error;
    if (info->flags & O_TRUNC) noticeOtherBytes(request, node);
    if (opened.value.isKernelBehind) {  // nobody else has it open: no request that this could wait for
      fuse_lowlevel_notify_inval_inode(sessionOf(request).fuse, numberOf(nodeOf(node), false), 0, 0);
      volumeOf(request).kernelCaughtUp(*opened.value.file);
    }
    fillOpened(info, opened.value, isOtherSpelling(node));
    if (fuse_reply_open(request, info) == 0) {
      opened.value.file.release();  // NOLINT(bugprone-unused-return-value): the kernel has it now
    } else {
      volumeOf(request).release(std::move(opened.value.file));
    }
    return answered;
  });
}

void onCreate(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t /*mode*/,
              fuse_file_info* info) {
  const WorksIn works(request, parent);
  answer(request, [&] {
    MountedVolume& volume = volumeOf(request);
    auto created = volume.create(nodeOf(parent), name, info->flags, interruptionOf(request));
    if (created.error) return created.error;
    auto& [found, opened] = created.value;
    const bool otherSpelling = isOtherSpelling(parent) || found.isOtherSpelling;
    fillOpened(info, opened, otherSpelling);
    const auto entry = sessionOf(request).entryOf(found.attributes, otherSpelling);
    const NodeId id = found.attributes.id;
    noticeOtherSpelling(request, parent, name);
    if (fuse_reply_create(request, &entry, info) == 0) {
      opened.file.release();  // NOLINT(bugprone-unused-return-value): the kernel has it now
    } else {
      volume.release(std::move(opened.file));
      volume.forget(id, 1);
    }
    return answered;
  });
}

void onMakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t /*device*/) {
  const WorksIn works(request, parent);
  answer(request, [&] {
    if (!S_ISREG(mode)) return EPERM;  // as link(2) and mknod(2) say of file systems without them
    MountedVolume& volume = volumeOf(request);
    auto created = volume.create(nodeOf(parent), name, O_WRONLY | O_EXCL, interruptionOf(request));
    if (created.error) return created.error;
    volume.release(std::move(created.value.opened.file));
    noticeOtherSpelling(request, parent, name);
    replyEntry(request, created.value.found, isOtherSpelling(parent));
    return answered;
  });
}

int replyRange(fuse_req_t request, FSReader& reader, std::size_t size, off_t offset) {
  std::vector<std::byte> buffer(size);
  NSErrorRef error;
  const auto goesOn = [isInterrupted = interruptionOf(request)] { return !isInterrupted(); };
  const auto count = reader.read(static_cast<std::uint64_t>(offset), buffer, goesOn, &error);
  if (!count) return error ? errnoOf(error) : EIO;
  fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), *count);
  return answered;
}

void onRead(fuse_req_t request, fuse_ino_t /*node*/, std::size_t size, off_t offset, fuse_file_info* info) {
  answer(request, [&] {
    const auto bytes = volumeOf(request).bytesOf(handleOf<OpenFile>(info), interruptionOf(request));
    if (bytes.error) return bytes.error;
    if (bytes.value.descriptor() < 0) return replyRange(request, *bytes.value.reader, size, offset);
    fuse_bufvec source = FUSE_BUFVEC_INIT(size);
    source.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
    source.buf[0].fd = bytes.value.descriptor();
    source.buf[0].pos = offset;
    fuse_reply_data(request, &source, FUSE_BUF_SPLICE_MOVE);
    return answered;
  });
}

void onWrite(fuse_req_t request, fuse_ino_t node, fuse_bufvec* from, off_t offset, fuse_file_info* info) {
  answer(request, [&] {
    ssize_t count = 0;
    // The flags are those of now (fcntl can change them). Pages of a mapping have their place.
    const bool appends = (info->flags & O_APPEND) && !info->writepage;
    std::uint64_t start = static_cast<std::uint64_t>(offset);
    const auto put = [&](int file, std::uint64_t sizeBytes) {
      if (appends) start = sizeBytes;
      fuse_bufvec target = FUSE_BUFVEC_INIT(fuse_buf_size(from));
      target.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
      target.buf[0].fd = file;
      target.buf[0].pos = static_cast<off_t>(start);
      count = fuse_buf_copy(&target, from, static_cast<fuse_buf_copy_flags>(0));
      return count < 0 ? static_cast<int>(-count) : 0;
    };
    auto& file = handleOf<OpenFile>(info);
    const bool isUncached = file.isUncached;
    if (const int reason =
            volumeOf(request).checkRoom(nodeOf(node), &file, static_cast<std::uint64_t>(offset)))
      return reason;
    if (const int reason = volumeOf(request).write(file, put, interruptionOf(request))) return reason;
    if (appends) sessionOf(request).bytesAppended(node, start, isUncached);
    if (!appends) noticeOtherBytes(request, node);
    fuse_reply_write(request, static_cast<std::size_t>(count));
    return answered;
  });
}

void onAllocate(fuse_req_t request, fuse_ino_t node, int mode, off_t offset, off_t length,
                fuse_file_info* info) {
  answer(request, [&] {
    MountedVolume& volume = volumeOf(request);
    auto& file = handleOf<OpenFile>(info);
    const auto end = static_cast<std::uint64_t>(offset) + static_cast<std::uint64_t>(length);
    if ((mode & FALLOC_FL_PUNCH_HOLE) == 0) {
      if (const int reason = volume.checkRoom(nodeOf(node), &file, end)) return reason;
    }
    const auto allocate = [&](int descriptor, std::uint64_t /*before*/) {
      return ::fallocate(descriptor, mode, offset, length) == 0 ? 0 : errno;
    };
    const int reason = volume.write(file, allocate, interruptionOf(request));
    if (reason == 0) noticeOtherBytes(request, node);
    return reason;
  });
}

void onFlush(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info) {
  answer(request, [&] { return volumeOf(request).flush(handleOf<OpenFile>(info), interruptionOf(request)); });
}

void onSync(fuse_req_t request, fuse_ino_t /*node*/, int /*onlyData*/, fuse_file_info* info) {
  answer(request, [&] { return volumeOf(request).sync(handleOf<OpenFile>(info), interruptionOf(request)); });
}

void onSyncFolder(fuse_req_t request, fuse_ino_t /*node*/, int /*onlyData*/, fuse_file_info* /*info*/) {
  fuse_reply_err(request, 0);  // a change of the tree is answered when the service has made it
}

void onRelease(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info) {
  answer(request, [&] {
    volumeOf(request).release(std::unique_ptr<OpenFile>(&handleOf<OpenFile>(info)));
    return 0;
  });
}

// --- Changes

void onMakeFolder(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t /*mode*/) {
  const WorksIn works(request, parent);
  answer(request, [&] {
    const auto made = volumeOf(request).makeFolder(nodeOf(parent), name, interruptionOf(request));
    if (made.error) return made.error;
    noticeOtherSpelling(request, parent, name);
    replyEntry(request, made.value, isOtherSpelling(parent) || made.value.isOtherSpelling);
    return answered;
  });
}

void onRemoveFile(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const WorksIn works(request, parent);
  answer(request, [&] {
    const int reason = volumeOf(request).removeFile(nodeOf(parent), name, interruptionOf(request));
    if (reason == 0) noticeOtherSpelling(request, parent, name);
    return reason;
  });
}

void onRemoveFolder(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const WorksIn works(request, parent);
  answer(request, [&] {
    const int reason = volumeOf(request).removeFolder(nodeOf(parent), name, interruptionOf(request));
    if (reason == 0) noticeOtherSpelling(request, parent, name);
    return reason;
  });
}

void onRename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
              const char* newName, unsigned flags) {
  const WorksIn works(request, parent);
  const WorksIn worksThere(request, newParent);
  answer(request, [&] {
    constexpr unsigned noReplace = 1;  // RENAME_NOREPLACE; two names cannot be exchanged
    if (flags & ~noReplace) return EINVAL;
    const auto target =
        flags & noReplace ? MountedVolume::Target::mustNotExist : MountedVolume::Target::mayExist;
    const int reason = volumeOf(request).rename(nodeOf(parent), name, nodeOf(newParent), newName, target,
                                                interruptionOf(request));
    if (reason != 0) return reason;
    noticeOtherSpelling(request, parent, name);
    noticeOtherSpelling(request, newParent, newName);
    return 0;
  });
}

void onLink(fuse_req_t request, fuse_ino_t /*node*/, fuse_ino_t /*parent*/, const char* /*name*/) {
  fuse_reply_err(request, EPERM);
}

void onSymlink(fuse_req_t request, const char* /*target*/, fuse_ino_t /*parent*/, const char* /*name*/) {
  fuse_reply_err(request, EPERM);
}

fuse_lowlevel_ops operations() {
  fuse_lowlevel_ops table{};
  table.init = onInit;
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
  table.getxattr = onGetExtra;
  table.listxattr = onListExtra;
  table.setxattr = onSetExtra;
  table.open = onOpen;
  table.create = onCreate;
  table.mknod = onMakeNode;
  table.read = onRead;
  table.write_buf = onWrite;
  table.fallocate = onAllocate;
  table.flush = onFlush;
  table.fsync = onSync;
  table.release = onRelease;
  table.mkdir = onMakeFolder;
  table.unlink = onRemoveFile;
  table.rmdir = onRemoveFolder;
  table.rename = onRename;
  table.link = onLink;
  table.symlink = onSymlink;
  return table;
}

}  // namespace

// --- The session

FuseServer::FuseServer() : session_(std::make_unique<Session>()) {
  session_->kernel = this;
  session_->umask = ::umask(022);
  ::umask(session_->umask);
}

FuseServer::~FuseServer() {
  if (!session_->fuse) return;
  fuse_session_unmount(session_->fuse);
  fuse_session_destroy(session_->fuse);
}

bool FuseServer::mount(const std::string& folder, NSErrorRef* error) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    setError(
        error,
        mountError(errno, "/dev/fuse cannot be opened: this system does not let this user mount volumes"));
    return false;
  }
  std::vector<std::string> words{"kzv", "-ofsname=kzv,subtype=kzv,default_permissions,nosuid,nodev"};
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(pointers.size()), pointers.data());
  const fuse_lowlevel_ops table = operations();
  session_->fuse = fuse_session_new(&arguments, &table, sizeof table, session_.get());
  fuse_opt_free_args(&arguments);
  if (session_->fuse && fuse_session_mount(session_->fuse, folder.c_str()) == 0) {
    const int device = fuse_session_fd(session_->fuse);
    ::fcntl(device, F_SETFD, FD_CLOEXEC);
    ::fcntl(device, F_SETFL,
            ::fcntl(device, F_GETFL) | O_NONBLOCK);  // stop() must never find it waiting there
    return true;
  }
  setError(error, mountError(EIO, "the system refused to mount here; what it said stands above"));
  if (session_->fuse) fuse_session_destroy(std::exchange(session_->fuse, nullptr));
  return false;
}

void FuseServer::serve(MountedVolume& volume) {
  session_->volume = &volume;
  session_->teller = std::thread([this] {
    setCurrentThreadName("kzv-notices");
    session_->tellKernel();
  });
  session_->addThread();
  for (std::size_t i = 0;; ++i) {  // a thread may add others until it ends
    std::thread thread;
    {
      const std::lock_guard lock(session_->threadsMutex);
      if (i == session_->threads.size()) break;
      thread = std::move(session_->threads[i]);
    }
    thread.join();
  }
  fuse_session_unmount(session_->fuse);
  {
    const std::lock_guard lock(session_->noticesMutex);
    session_->isTelling = false;
  }
  session_->noticesChanged.notify_all();
  session_->teller.join();
}

void FuseServer::stop() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(session_->stopEvent.number(), &one, sizeof one);
}

void FuseServer::Session::addThread() {
  const std::lock_guard lock(threadsMutex);
  if (threads.size() >= maxThreads) return;
  ++idle;
  try {
    threads.emplace_back([this] {
      setCurrentThreadName("kzv-mount");
      work();
    });
  } catch (const std::system_error&) {  // the system has no thread to give: those there are must do
    --idle;
    if (threads.empty()) throw;
  }
}

/// True when there is a request; false when the session is over.
bool FuseServer::Session::waitForRequest() const {
  pollfd sources[2]{{fuse_session_fd(fuse), POLLIN, 0}, {stopEvent.number(), POLLIN, 0}};
  while (::poll(sources, 2, -1) < 0) {
    if (errno != EINTR) return false;
  }
  return sources[1].revents == 0;
}

void FuseServer::Session::work() {
  fuse_buf request{};
  while (!isOver) {
    int bytes = 0;
    {
      const std::lock_guard turn(turnMutex);
      if (isOver || !waitForRequest()) {
        isOver = true;
        break;
      }
      bytes = fuse_session_receive_buf(fuse, &request);
    }
    if (bytes == -EAGAIN || bytes == -EINTR) continue;
    if (bytes <= 0) {  // unmounted, or the connection is broken
      isOver = true;
      break;
    }
    if (--idle == 0) addThread();  // somebody must listen while this one works
    fuse_session_process_buf(fuse, &request);
    ++idle;
  }
  std::free(request.mem);  // NOLINT(cppcoreguidelines-no-malloc): libfuse's own
}

std::deque<FuseServer::Session::Notice>::iterator FuseServer::Session::nextNotice() {
  const auto now = std::chrono::steady_clock::now();
  return std::find_if(notices.begin(), notices.end(), [&](const Notice& notice) {
    return !foldersWorkedIn.contains(notice.folder) || now > notice.latest;
  });
}

void FuseServer::Session::tellKernel() {
  std::unique_lock lock(noticesMutex);
  while (isTelling) {
    const auto next = nextNotice();
    if (next == notices.end()) {
      noticesChanged.wait_for(lock, noticePatience);
      continue;
    }
    const auto tell = std::move(next->tell);
    notices.erase(next);
    lock.unlock();
    tell();
    lock.lock();
  }
}

/// The kernel knows neither the end of the file nor the bytes there. It hears of both before the program
/// hears that it has written, so that no read in between finds zeros there. That waits for reads of the last
/// page, which other threads answer: so not all may wait here. Nor may a write through the page cache
/// (O_APPEND was set after the open), for which the kernel holds the page itself.
void FuseServer::Session::bytesAppended(fuse_ino_t number, std::uint64_t offset, bool isUncached) {
  const auto tell = [this, number, offset] {
    const auto from = static_cast<off_t>(offset);
    fuse_lowlevel_notify_inval_inode(fuse, numberOf(nodeOf(number), false), from, 0);
    if (isOtherSpelling(number)) fuse_lowlevel_notify_inval_inode(fuse, number, from, 0);
  };
  if (++tellingOfAppends <= maxThreads / 4 && isUncached) {
    tell();
  } else {
    notice(0, tell);
  }
  --tellingOfAppends;
}

void FuseServer::Session::notice(NodeId about, std::function<void()> tell) {
  {
    const std::lock_guard lock(noticesMutex);
    if (!isTelling) return;
    notices.push_back({about, std::move(tell), std::chrono::steady_clock::now() + noticePatience});
  }
  noticesChanged.notify_one();
}

void FuseServer::entryChanged(NodeId folder, const std::string& name) {
  session_->notice(folder, [this, folder, name] {
    fuse_lowlevel_notify_inval_entry(session_->fuse, numberOf(folder, false), name.c_str(), name.size());
  });
}

void FuseServer::contentChanged(NodeId file) {
  session_->notice(
      0, [this, file] { fuse_lowlevel_notify_inval_inode(session_->fuse, numberOf(file, false), 0, 0); });
}

void FuseServer::listingChanged(NodeId folder) {
  session_->notice(
      0, [this, folder] { fuse_lowlevel_notify_inval_inode(session_->fuse, numberOf(folder, false), 0, 0); });
}
