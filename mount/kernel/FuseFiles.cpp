// Callbacks of open files.
#include <vector>

#include <fcntl.h>

#include "mount/MountErrors.h"
#include "mount/kernel/FuseSession.h"

namespace kzv::mount {

namespace {

// --- Opening

void fillOpened(fuse_file_info* info, OpenFiles::Opened& opened, bool otherSpelling) {
  info->fh = reinterpret_cast<std::uintptr_t>(opened.file.get());
  // Two inodes of one file have two page caches, so other spellings bypass theirs. Appends go to the file's
  // real end, which the kernel may not know, so they bypass the cache, too.
  opened.file->isUncached = otherSpelling || (info->flags & O_APPEND) != 0;
  info->direct_io = opened.file->isUncached ? 1 : 0;
  info->keep_cache = opened.keepsCache && !otherSpelling ? 1 : 0;
}

void onOpen(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
  answer(request, [&] {
    OpenFiles& files = volumeOf(request).files();
    auto opened = files.open(nodeOf(inode), info->flags, interruptionOf(request));
    if (opened.error) return opened.error;
    if (info->flags & O_TRUNC) noteOtherSpellingWritten(request, inode);
    if (opened.value.isKernelSizeStale) {
      // Nobody else has the file open, so there is no request that this could wait for.
      sessionOf(request).dropCachedBytes(inodeOf(nodeOf(inode), false), 0);
      files.noteKernelSizeDropped(*opened.value.file);
    }
    fillOpened(info, opened.value, isOtherSpelling(inode));
    if (fuse_reply_open(request, info) == 0) {
      opened.value.file.release();  // NOLINT(bugprone-unused-return-value): the kernel owns it now
    } else {
      files.release(std::move(opened.value.file));
    }
    return answered;
  });
}

void onCreate(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t /*mode*/,
              fuse_file_info* info) {
  const auto use = folderUse(request, parent);
  answer(request, [&] {
    MountedVolume& volume = volumeOf(request);
    auto created = volume.files().create(nodeOf(parent), name, info->flags, interruptionOf(request));
    if (created.error) return created.error;
    auto& [found, opened] = created.value;
    const bool otherSpelling = isOtherSpelling(parent) || found.isOtherSpelling;
    fillOpened(info, opened, otherSpelling);
    const auto entry = sessionOf(request).entryOf(found.attributes, otherSpelling);
    const NodeId node = found.attributes.id;
    noteOtherSpellingChanged(request, parent, name);
    if (fuse_reply_create(request, &entry, info) == 0) {
      opened.file.release();  // NOLINT(bugprone-unused-return-value): the kernel owns it now
    } else {
      volume.files().release(std::move(opened.file));
      volume.lookups().forget(node, 1);
    }
    return answered;
  });
}

void onMakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t /*device*/) {
  const auto use = folderUse(request, parent);
  answer(request, [&] {
    if (!S_ISREG(mode)) return EPERM;  // as mknod(2) says of file systems without such nodes
    OpenFiles& files = volumeOf(request).files();
    auto created = files.create(nodeOf(parent), name, O_WRONLY | O_EXCL, interruptionOf(request));
    if (created.error) return created.error;
    files.release(std::move(created.value.opened.file));
    noteOtherSpellingChanged(request, parent, name);
    replyEntry(request, created.value.found, isOtherSpelling(parent));
    return answered;
  });
}

// --- Bytes

int replyRange(fuse_req_t request, FSReader& reader, std::size_t size, off_t offset) {
  std::vector<std::byte> buffer(size);
  NSErrorRef error;
  const auto shouldContinue = [isInterrupted = interruptionOf(request)] { return !isInterrupted(); };
  const auto count = reader.read(static_cast<std::uint64_t>(offset), buffer, shouldContinue, &error);
  if (!count) return error ? errnoOf(error) : EIO;
  fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), *count);
  return answered;
}

void onRead(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset, fuse_file_info* info) {
  answer(request, [&] {
    const auto bytes = volumeOf(request).files().bytesOf(handleOf<OpenFile>(info), interruptionOf(request));
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

void onWrite(fuse_req_t request, fuse_ino_t inode, fuse_bufvec* from, off_t offset, fuse_file_info* info) {
  answer(request, [&] {
    OpenFiles& files = volumeOf(request).files();
    ssize_t count = 0;
    // The current flags: fcntl can change them. Pages of a mapping are written at their offset.
    const bool appends = (info->flags & O_APPEND) && !info->writepage;
    std::uint64_t start = static_cast<std::uint64_t>(offset);
    const auto put = [&](int descriptor, std::uint64_t sizeBytes) {
      if (appends) start = sizeBytes;
      fuse_bufvec target = FUSE_BUFVEC_INIT(fuse_buf_size(from));
      target.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
      target.buf[0].fd = descriptor;
      target.buf[0].pos = static_cast<off_t>(start);
      count = fuse_buf_copy(&target, from, static_cast<fuse_buf_copy_flags>(0));
      return count < 0 ? static_cast<int>(-count) : 0;
    };
    auto& file = handleOf<OpenFile>(info);
    const bool isUncached = file.isUncached;
    if (const int reason = files.checkRoom(nodeOf(inode), &file, static_cast<std::uint64_t>(offset)))
      return reason;
    if (const int reason = files.write(file, put, interruptionOf(request))) return reason;
    if (appends) sessionOf(request).noteAppended(inode, start, isUncached);
    if (!appends) noteOtherSpellingWritten(request, inode);
    fuse_reply_write(request, static_cast<std::size_t>(count));
    return answered;
  });
}

void onAllocate(fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t length,
                fuse_file_info* info) {
  answer(request, [&] {
    OpenFiles& files = volumeOf(request).files();
    auto& file = handleOf<OpenFile>(info);
    const auto end = static_cast<std::uint64_t>(offset) + static_cast<std::uint64_t>(length);
    if ((mode & FALLOC_FL_PUNCH_HOLE) == 0) {
      if (const int reason = files.checkRoom(nodeOf(inode), &file, end)) return reason;
    }
    const auto allocate = [&](int descriptor, std::uint64_t /*before*/) {
      return ::fallocate(descriptor, mode, offset, length) == 0 ? 0 : errno;
    };
    const int reason = files.write(file, allocate, interruptionOf(request));
    if (reason == 0) noteOtherSpellingWritten(request, inode);
    return reason;
  });
}

// --- Closing

void onFlush(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
  answer(request,
         [&] { return volumeOf(request).files().flush(handleOf<OpenFile>(info), interruptionOf(request)); });
}

void onSync(fuse_req_t request, fuse_ino_t /*inode*/, int /*onlyData*/, fuse_file_info* info) {
  answer(request,
         [&] { return volumeOf(request).files().sync(handleOf<OpenFile>(info), interruptionOf(request)); });
}

void onRelease(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
  answer(request, [&] {
    volumeOf(request).files().release(std::unique_ptr<OpenFile>(&handleOf<OpenFile>(info)));
    return 0;
  });
}

}  // namespace

void addFileCallbacks(fuse_lowlevel_ops& table) {
  table.open = onOpen;
  table.create = onCreate;
  table.mknod = onMakeNode;
  table.read = onRead;
  table.write_buf = onWrite;
  table.fallocate = onAllocate;
  table.flush = onFlush;
  table.fsync = onSync;
  table.release = onRelease;
}

}  // namespace kzv::mount
