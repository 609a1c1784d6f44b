#pragma once
#include <memory>
#include <string>

#include "foundation/NSError.h"
#include "host/mount/MountedVolume.h"

/// The kernel's side of a mount: speaks the FUSE protocol through libfuse 3 and hands every request to a
/// MountedVolume, on threads of its own.
///
/// An item that is asked for under another spelling of its name gets a second number, under which the kernel
/// keeps nothing: so "readme" can be renamed to "README", which a kernel refuses between names of one inode.
class FuseServer final : public KernelCache {
 public:
  struct Session;

  FuseServer();
  ~FuseServer() override;

  /// Mounts at `folder`, an existing one. False with an error in words. Requests wait until serve().
  bool mount(const std::string& folder, NSErrorRef* error);
  /// Answers requests until the volume is unmounted, from wherever, or stop() is called; then it is
  /// unmounted. Blocks.
  void serve(MountedVolume& volume);
  /// Ends serve(). Any thread.
  void stop();

  // KernelCache. Return at once: told from a thread of their own, because the kernel may wait for an answer
  // of ours before it takes them.
  void entryChanged(NodeId folder, const std::string& name) override;
  void contentChanged(NodeId file) override;
  void listingChanged(NodeId folder) override;

 private:
  const std::unique_ptr<Session> session_;
};
