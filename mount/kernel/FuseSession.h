#pragma once
// Private to mount/kernel: includes libfuse's headers.
#define FUSE_USE_VERSION 312
#include <atomic>
#include <cerrno>
#include <exception>
#include <new>

#include <fuse3/fuse_lowlevel.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/NSLog.h"
#include "mount/MountedVolume.h"
#include "mount/kernel/KernelNotices.h"
#include "mount/kernel/RequestThreads.h"

namespace kzv::mount {

/// The kernel may cache for long: every change is reported to it.
inline constexpr double cacheSeconds = 24 * 3600;

// Inode numbers. The root is 1 on both sides; else the last bit says "another spelling".
inline bool isOtherSpelling(fuse_ino_t inode) { return inode != FUSE_ROOT_ID && (inode & 1) != 0; }
inline NodeId nodeOf(fuse_ino_t inode) { return inode == FUSE_ROOT_ID ? MountTree::rootId : inode >> 1; }
inline fuse_ino_t inodeOf(NodeId node, bool otherSpelling) {
  return node == MountTree::rootId ? FUSE_ROOT_ID : (node << 1) | (otherSpelling ? 1 : 0);
}

/// What the callbacks of one FUSE session share.
struct FuseSession {
  fuse_session* fuse = nullptr;
  MountedVolume* volume = nullptr;  // while serving
  KernelCache* kernel = nullptr;
  const uid_t user = ::getuid();
  const gid_t group = ::getgid();
  mode_t umask = 022;
  KernelNotices notices;
  RequestThreads threads;
  std::atomic<std::size_t> appendNoticesInFlight{0};

  struct stat statOf(const NodeAttributes& attributes, bool otherSpelling) const;
  fuse_entry_param entryOf(const NodeAttributes& attributes, bool otherSpelling) const;
  /// Invalidates the kernel's cached attributes and bytes from `offset` on. Blocks until reads of those pages
  /// are answered.
  void dropCachedBytes(fuse_ino_t inode, std::uint64_t offset) const;
  /// Invalidates the kernel's pages from `offset` on, where bytes were appended: it knew neither the file's
  /// end nor the bytes.
  void noteAppended(fuse_ino_t inode, std::uint64_t offset, bool isUncached);
};

// The callbacks, by topic.
void addLookupCallbacks(fuse_lowlevel_ops& table);
void addFileCallbacks(fuse_lowlevel_ops& table);
void addChangeCallbacks(fuse_lowlevel_ops& table);

inline FuseSession& sessionOf(fuse_req_t request) {
  return *static_cast<FuseSession*>(fuse_req_userdata(request));
}
inline MountedVolume& volumeOf(fuse_req_t request) { return *sessionOf(request).volume; }
inline IsInterrupted interruptionOf(fuse_req_t request) {
  return [request] { return fuse_req_interrupted(request) != 0; };
}

inline constexpr int answered = -1;

/// Runs one operation, which answers the request itself and returns `answered`, or returns the errno value to
/// answer with. Exceptions become ENOMEM or EIO.
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

template <class Handle>
Handle& handleOf(const fuse_file_info* info) {
  return *reinterpret_cast<Handle*>(info->fh);  // NOLINT(performance-no-int-to-ptr): it was made from one
}

inline KernelNotices::FolderUse folderUse(fuse_req_t request, fuse_ino_t folder) {
  return {sessionOf(request).notices, nodeOf(folder)};
}

void replyEntry(fuse_req_t request, const FoundItem& found, bool otherSpelling);
int replyAttributes(fuse_req_t request, fuse_ino_t inode);
/// After a change through another spelling of a folder's name: the kernel's caches under its own name are out
/// of date.
void noteOtherSpellingChanged(fuse_req_t request, fuse_ino_t parent, const char* name);
/// The same for the bytes of a file.
void noteOtherSpellingWritten(fuse_req_t request, fuse_ino_t inode);

}  // namespace kzv::mount
