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

/// The work's time to stop by itself. With the rest it stays below a quarter of a second, which a person
/// perceives as "at once".
constexpr auto defaultGrace = std::chrono::milliseconds(200);

std::atomic<bool> requested{false};
std::atomic<bool> isEndRequested{false};  // by a signal other than SIGINT
std::atomic<void (*)()> leaveHook{nullptr};
int wakeUpEvent = -1;  // an eventfd, set before the handlers are installed

/// State shared by the signal thread and the work.
struct Watch {
  std::mutex mutex;
  std::condition_variable wasReset;
  std::function<void()> onStop;                    // guarded by mutex
  std::function<void()> unansweredInterrupt;       // guarded by mutex
  std::chrono::milliseconds grace = defaultGrace;  // guarded by mutex
  std::uint64_t resets = 0;                        // guarded by mutex
};

Watch& watch() {
  static auto& theWatch = *new Watch;  // never destroyed: its thread uses it to the end
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
  // The second one ends the program right here, whatever blocks the other threads.
  if (requested.exchange(true)) endNow(static_cast<int>(ExitStatus::stopped));
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(wakeUpEvent, &one, sizeof one);
  errno = before;
}

void waitForSignal() {
  std::uint64_t count = 0;
  while (::read(wakeUpEvent, &count, sizeof count) != sizeof count) {
  }
}

/// Waits until reset() answers the stop request; false when that takes too long and the program has to end.
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
  ::signal(SIGPIPE, SIG_IGN);  // a closed pipe becomes an error of write()
  wakeUpEvent = ::eventfd(0, EFD_CLOEXEC);
  std::thread([unanswered = std::move(unanswered)] {
    setCurrentThreadName("kzv-signals");
    do {
      waitForSignal();
    } while (isAnswered());
    unanswered();
    leave(static_cast<int>(ExitStatus::stopped));
  }).detach();
  // Even if ignored, as a shell sets it for background jobs: a SIGINT sent by hand must work.
  handle(SIGINT, false);
  handle(SIGTERM, false);
  handle(SIGHUP, true);  // nohup
}

bool StopSignal::isRequested() noexcept { return requested.load(); }

void StopSignal::whenRequested(std::function<void()> onStop, std::chrono::milliseconds grace) {
  Watch& state = watch();
  const std::lock_guard lock(state.mutex);
  state.grace = onStop ? grace : defaultGrace;
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
