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

/// The threads that serve the kernel's requests, one request a thread: they block. One thread waits for the
/// next request; threads are added as long as none is left to wait.
class RequestThreads {
 public:
  static constexpr std::size_t maxThreads = 64;

  RequestThreads();
  RequestThreads(const RequestThreads&) = delete;
  RequestThreads& operator=(const RequestThreads&) = delete;

  /// Serves until the session is unmounted or stop() is called. Throws std::system_error when the system has
  /// not a single thread to give.
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
  std::mutex turnMutex_;  // held by the thread that waits for the kernel
  Mutex threadsMutex_;
  std::vector<std::thread> threads_ KZV_GUARDED_BY(threadsMutex_);
  std::atomic<std::size_t> idle_{0};
  std::atomic<bool> isOver_{false};
};

}  // namespace kzv::mount
