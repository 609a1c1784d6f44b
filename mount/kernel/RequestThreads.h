#pragma once
#include <atomic>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/Descriptor.h"
#include "foundation/Mutex.h"

struct fuse_session;

namespace kzv::mount {

/// The threads that serve the kernel's requests, each one request at a time, since they block. One thread
/// waits for the next request; another is added whenever none is idle, up to maxThreads.
class RequestThreads {
 public:
  static constexpr std::size_t maxThreads = 64;

  RequestThreads();
  RequestThreads(const RequestThreads&) = delete;
  RequestThreads& operator=(const RequestThreads&) = delete;

  /// Serves until the session is unmounted or stop() is called. Blocks. Throws std::system_error when not
  /// even one thread can be started.
  void serve(fuse_session* session);
  /// Ends serve(). Any thread, also before serve().
  void stop();

 private:
  void addThread();
  void work();
  /// False when the session is over.
  bool waitForRequest() const;

  fuse_session* session_ = nullptr;
  const Descriptor stopEvent_;
  std::mutex receiveMutex_;  // held by the thread that waits for a request
  Mutex threadsMutex_;
  std::vector<std::thread> threads_ KZV_GUARDED_BY(threadsMutex_);
  std::atomic<std::size_t> idle_{0};
  std::atomic<bool> isOver_{false};
};

}  // namespace kzv::mount
