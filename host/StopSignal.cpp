#include "host/StopSignal.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <thread>

#include <sys/eventfd.h>
#include <unistd.h>

#include "foundation/NSThread.h"
#include "host/ExitStatus.h"

namespace {

/// How long the work may take to stop by itself. Together with the rest it stays below a quarter of a second,
/// what a person still takes for "at once".
constexpr auto grace = std::chrono::milliseconds(200);

std::atomic<bool> requested{false};
std::atomic<void (*)()> leaveHook{nullptr};
int wakeUp = -1;  // an eventfd, set before the handlers are installed

/// Safe in a signal handler.
[[noreturn]] void endNow(int status) {
  if (void (*restore)() = leaveHook.load()) restore();
  ::_exit(status);
}

extern "C" void onStopSignal(int /*number*/) {
  const int before = errno;
  // The second one ends the program right here: whatever holds it up must not hold up this.
  if (requested.exchange(true)) endNow(static_cast<int>(ExitStatus::stopped));
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(wakeUp, &one, sizeof one);
  errno = before;
}

void waitForSignal() {
  std::uint64_t count = 0;
  while (::read(wakeUp, &count, sizeof count) != sizeof count) {
  }
}

void handle(int number, bool onlyIfNotIgnored) {
  struct sigaction before {};
  if (onlyIfNotIgnored && ::sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) return;
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  action.sa_flags = SA_RESTART;
  ::sigaction(number, &action, nullptr);
}

}  // namespace

void StopSignal::install(std::function<void()> unanswered) {
  ::signal(SIGPIPE, SIG_IGN);  // a reader that has gone is the error of a write
  wakeUp = ::eventfd(0, EFD_CLOEXEC);
  std::thread([unanswered = std::move(unanswered)] {
    setCurrentThreadName("kzv-signals");
    waitForSignal();
    std::this_thread::sleep_for(grace);
    unanswered();
    leave(static_cast<int>(ExitStatus::stopped));
  }).detach();
  // A shell ignores SIGINT for what it runs in the background; who then sends one by hand still means it.
  handle(SIGINT, false);
  handle(SIGTERM, false);
  handle(SIGHUP, true);  // nohup
}

bool StopSignal::isRequested() noexcept { return requested.load(); }

void leave(int status) {
  static std::atomic_flag isLeaving;
  if (isLeaving.test_and_set())
    while (true) ::pause();
  endNow(status);
}

void setLeaveHook(void (*restore)()) { leaveHook.store(restore); }
