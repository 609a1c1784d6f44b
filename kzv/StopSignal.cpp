#include "kzv/StopSignal.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <thread>

#include <sys/eventfd.h>
#include <unistd.h>

#include "foundation/NSThread.h"
#include "kzv/ExitStatus.h"

namespace kzv::cli {

namespace {

/// How long the work may take to stop by itself. Together with the rest it stays below a quarter of a second,
/// what a person still takes for "at once".
constexpr auto usualGrace = std::chrono::milliseconds(200);

std::atomic<bool> requested{false};
std::atomic<bool> isEndRequested{false};  // by another signal than Ctrl-C
std::atomic<void (*)()> leaveHook{nullptr};
int wakeUp = -1;  // an eventfd, set before the handlers are installed

/// What the thread of this class and the work have to tell each other.
struct Watch {
  std::mutex mutex;
  std::condition_variable wasReset;
  std::function<void()> onStop;                  // guarded by mutex
  std::function<void()> unansweredInterrupt;     // guarded by mutex
  std::chrono::milliseconds grace = usualGrace;  // guarded by mutex
  std::uint64_t resets = 0;                      // guarded by mutex
};

Watch& watch() {
  static auto& theWatch = *new Watch;  // its thread uses it to the end
  return theWatch;
}

/// Safe in a signal handler.
[[noreturn]] void endNow(int status) {
  if (void (*restore)() = leaveHook.load()) restore();
  ::_exit(status);
}

extern "C" void onStopSignal(int number) {
  const int before = errno;
  if (number != SIGINT) isEndRequested = true;
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

/// Waits until the stop that has just been asked for is answered with a reset; false when that takes so long
/// that the program has to end.
bool isAnswered() {
  Watch& state = watch();
  std::unique_lock lock(state.mutex);
  if (!requested) return true;
  if (state.onStop) state.onStop();
  if (state.wasReset.wait_for(lock, state.grace,
                              [&, before = state.resets] { return state.resets != before; }))
    return true;
  if (isEndRequested || !state.unansweredInterrupt) return false;
  state.unansweredInterrupt();
  return true;
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
    do {
      waitForSignal();
    } while (isAnswered());
    unanswered();
    leave(static_cast<int>(ExitStatus::stopped));
  }).detach();
  // A shell ignores SIGINT for what it runs in the background; who then sends one by hand still means it.
  handle(SIGINT, false);
  handle(SIGTERM, false);
  handle(SIGHUP, true);  // nohup
}

bool StopSignal::isRequested() noexcept { return requested.load(); }

void StopSignal::whenRequested(std::function<void()> onStop, std::chrono::milliseconds grace) {
  Watch& state = watch();
  const std::lock_guard lock(state.mutex);
  state.grace = onStop ? grace : usualGrace;
  state.onStop = std::move(onStop);
  if (state.onStop && requested) state.onStop();
}

void StopSignal::outliveInterrupts(std::function<void()> unanswered) {
  const std::lock_guard lock(watch().mutex);
  watch().unansweredInterrupt = std::move(unanswered);
}

void StopSignal::reset() {
  Watch& state = watch();
  {
    const std::lock_guard lock(state.mutex);
    if (isEndRequested) return;
    requested = false;
    ++state.resets;
  }
  state.wasReset.notify_all();
}

void leave(int status) {
  static std::atomic_flag isLeaving;
  if (isLeaving.test_and_set())
    while (true) ::pause();
  endNow(status);
}

void setLeaveHook(void (*restore)()) { leaveHook.store(restore); }

}  // namespace kzv::cli
