#define FUSE_USE_VERSION 312
#include "mount/kernel/RequestThreads.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <fuse3/fuse_lowlevel.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "foundation/NSThread.h"

namespace kzv::mount {

RequestThreads::RequestThreads() : stopEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void RequestThreads::serve(fuse_session* session) {
  session_ = session;
  addThread();
  for (std::size_t i = 0;; ++i) {  // a thread may add others until it ends
    std::thread thread;
    {
      const MutexLock lock(threadsMutex_);
      if (i == threads_.size()) break;
      thread = std::move(threads_[i]);
    }
    thread.join();
  }
}

void RequestThreads::stop() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(stopEvent_.number(), &one, sizeof one);
}

void RequestThreads::addThread() {
  const MutexLock lock(threadsMutex_);
  if (threads_.size() >= maxThreads) return;
  ++idle_;
  try {
    threads_.emplace_back([this] {
      setCurrentThreadName("kzv-mount");
      work();
    });
  } catch (const std::system_error&) {  // the system's thread limit: go on with those there are
    --idle_;
    if (threads_.empty()) throw;
  }
}

bool RequestThreads::waitForRequest() const {
  pollfd sources[2]{{fuse_session_fd(session_), POLLIN, 0}, {stopEvent_.number(), POLLIN, 0}};
  while (::poll(sources, 2, -1) < 0) {
    if (errno != EINTR) return false;
  }
  return sources[1].revents == 0;
}

void RequestThreads::work() {
  fuse_buf request{};
  while (!isOver_) {
    int bytes = 0;
    {
      const std::lock_guard turn(receiveMutex_);
      if (isOver_ || !waitForRequest()) {
        isOver_ = true;
        break;
      }
      bytes = fuse_session_receive_buf(session_, &request);
    }
    if (bytes == -EAGAIN || bytes == -EINTR) continue;
    if (bytes <= 0) {  // unmounted, or the connection is broken
      isOver_ = true;
      break;
    }
    if (--idle_ == 0) addThread();  // so that one always waits for requests
    fuse_session_process_buf(session_, &request);
    ++idle_;
  }
  std::free(request.mem);  // NOLINT(cppcoreguidelines-no-malloc): libfuse's own
}

}  // namespace kzv::mount
