#include "mount/kernel/FuseServer.h"

#include <cerrno>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "mount/kernel/FuseSession.h"

namespace kzv::mount {

namespace {

constexpr unsigned transferBytes = 1U << 20;

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

fuse_lowlevel_ops callbacks() {
  fuse_lowlevel_ops table{};
  table.init = onInit;
  addLookupCallbacks(table);
  addFileCallbacks(table);
  addChangeCallbacks(table);
  return table;
}

}  // namespace

FuseServer::FuseServer() : session_(std::make_unique<FuseSession>()) {
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
    setError(error, NSError::withText(
                        NSPOSIXErrorDomain, errno,
                        "/dev/fuse cannot be opened: this system does not let this user mount volumes"));
    return false;
  }
  std::vector<std::string> words{"kzv", "-ofsname=kzv,subtype=kzv,default_permissions,nosuid,nodev"};
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(pointers.size()), pointers.data());
  const fuse_lowlevel_ops table = callbacks();
  session_->fuse = fuse_session_new(&arguments, &table, sizeof table, session_.get());
  fuse_opt_free_args(&arguments);
  if (session_->fuse && fuse_session_mount(session_->fuse, folder.c_str()) == 0) {
    const int device = fuse_session_fd(session_->fuse);
    ::fcntl(device, F_SETFD, FD_CLOEXEC);
    ::fcntl(device, F_SETFL, ::fcntl(device, F_GETFL) | O_NONBLOCK);  // a read must never block past stop()
    return true;
  }
  setError(error, NSError::withText(NSPOSIXErrorDomain, EIO,
                                    "the system refused to mount here; see the message above"));
  if (session_->fuse) fuse_session_destroy(std::exchange(session_->fuse, nullptr));
  return false;
}

void FuseServer::serve(MountedVolume& volume) {
  session_->volume = &volume;
  session_->notices.start();
  session_->threads.serve(session_->fuse);
  fuse_session_unmount(session_->fuse);
  session_->notices.stop();
}

void FuseServer::stop() { session_->threads.stop(); }

void FuseServer::invalidateEntry(NodeId folder, const std::string& name) {
  session_->notices.addFor(folder, [fuse = session_->fuse, folder, name] {
    fuse_lowlevel_notify_inval_entry(fuse, inodeOf(folder, false), name.c_str(), name.size());
  });
}

void FuseServer::invalidateContent(NodeId file) { invalidateInode(file); }

void FuseServer::invalidateListing(NodeId folder) { invalidateInode(folder); }

void FuseServer::invalidateInode(NodeId node) {
  session_->notices.add(
      [session = session_.get(), node] { session->dropCachedBytes(inodeOf(node, false), 0); });
}

}  // namespace kzv::mount
