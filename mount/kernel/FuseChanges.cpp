// Callbacks that change the tree.
#include "mount/kernel/FuseSession.h"

namespace kzv::mount {

namespace {

void onMakeFolder(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t /*mode*/) {
  const auto use = folderUse(request, parent);
  answer(request, [&] {
    const auto made = volumeOf(request).changes().makeFolder(nodeOf(parent), name, interruptionOf(request));
    if (made.error) return made.error;
    noteOtherSpellingChanged(request, parent, name);
    replyEntry(request, made.value, isOtherSpelling(parent) || made.value.isOtherSpelling);
    return answered;
  });
}

void onRemoveFile(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const auto use = folderUse(request, parent);
  answer(request, [&] {
    const int reason = volumeOf(request).changes().removeFile(nodeOf(parent), name, interruptionOf(request));
    if (reason == 0) noteOtherSpellingChanged(request, parent, name);
    return reason;
  });
}

void onRemoveFolder(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const auto use = folderUse(request, parent);
  answer(request, [&] {
    const int reason =
        volumeOf(request).changes().removeFolder(nodeOf(parent), name, interruptionOf(request));
    if (reason == 0) noteOtherSpellingChanged(request, parent, name);
    return reason;
  });
}

void onRename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
              const char* newName, unsigned flags) {
  const auto use = folderUse(request, parent);
  const auto useOfNew = folderUse(request, newParent);
  answer(request, [&] {
    constexpr unsigned noReplace = 1;  // RENAME_NOREPLACE; exchanging two names is not possible
    if (flags & ~noReplace) return EINVAL;
    const auto target = flags & noReplace ? Rename::Target::mustNotExist : Rename::Target::mayExist;
    const int reason = volumeOf(request).rename({nodeOf(parent), name, nodeOf(newParent), newName, target},
                                                interruptionOf(request));
    if (reason != 0) return reason;
    noteOtherSpellingChanged(request, parent, name);
    noteOtherSpellingChanged(request, newParent, newName);
    return 0;
  });
}

void onLink(fuse_req_t request, fuse_ino_t /*inode*/, fuse_ino_t /*parent*/, const char* /*name*/) {
  fuse_reply_err(request, EPERM);  // as link(2) says of file systems without hard links
}

void onSymlink(fuse_req_t request, const char* /*target*/, fuse_ino_t /*parent*/, const char* /*name*/) {
  fuse_reply_err(request, EPERM);
}

}  // namespace

void addChangeCallbacks(fuse_lowlevel_ops& table) {
  table.mkdir = onMakeFolder;
  table.unlink = onRemoveFile;
  table.rmdir = onRemoveFolder;
  table.rename = onRename;
  table.link = onLink;
  table.symlink = onSymlink;
}

}  // namespace kzv::mount
