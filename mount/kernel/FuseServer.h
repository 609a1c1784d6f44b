#pragma once
#include <memory>
#include <string>

#include "foundation/NSError.h"
#include "mount/MountedVolume.h"

namespace kzv::mount {

struct FuseSession;

/// The kernel's side of a mount: speaks the FUSE protocol through libfuse 3 and passes every request to a
/// MountedVolume, on threads of its own.
///
/// An item that is asked for under another spelling of its name gets a second inode, for which the kernel
/// caches nothing: so "readme" can be renamed to "README", which a kernel refuses between names of one inode.
class FuseServer final : public KernelCache {
 public:
  FuseServer();
  ~FuseServer() override;

  /// Mounts at `folder`, which must exist. False with an error. Requests wait until serve().
  bool mount(const std::string& folder, NSErrorRef* error);
  /// Answers requests until the volume is unmounted, by whomever, or stop() is called, which unmounts it.
  /// Blocks.
  void serve(MountedVolume& volume);
  /// Ends serve(). Any thread.
  void stop();

  // KernelCache. These return at once: a thread of its own sends them (KernelNotices).
  void invalidateEntry(NodeId folder, const std::string& name) override;
  void invalidateContent(NodeId file) override;
  void invalidateListing(NodeId folder) override;

 private:
  void invalidateInode(NodeId node);

  const std::unique_ptr<FuseSession> session_;
};

}  // namespace kzv::mount
