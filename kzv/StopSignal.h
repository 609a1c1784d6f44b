#pragma once
#include <chrono>
#include <functional>

namespace kzv::cli {

/// Handles SIGINT, SIGTERM and SIGHUP: the first one asks the work to stop; if the program is still running
/// shortly afterwards, for instance because it waits for the network, or if a second one arrives, it exits at
/// once. Any thread unless a member says otherwise.
class StopSignal {
 public:
  /// Installs the signal handlers. Once per process, before other threads start.
  /// @param unanswered  called on the signal thread when the work did not stop in time, before the program
  /// exits with status 130; must not wait for that work, nor for locks it may hold.
  static void install(std::function<void()> unanswered);
  /// For work that needs longer to stop: `onStop` is called at the first stop request (at once, if it was
  /// made already), perhaps twice, on the signal thread; the work then has `grace` to end. Null removes it:
  /// `onStop` is not called any more once this returns.
  static void whenRequested(std::function<void()> onStop, std::chrono::milliseconds grace);
  /// For a program that outlives its work, such as a shell: a SIGINT that the work does not answer in time
  /// does not end the program; instead `unanswered` is called on the signal thread. A second SIGINT still
  /// ends it. Null removes it: `unanswered` is not called any more once this returns.
  static void outliveInterrupts(std::function<void()> unanswered);
  /// Whether a stop was requested.
  static bool isRequested() noexcept;
  /// Clears the stop request: the work has stopped, and the program continues with other work, as a shell
  /// does. SIGTERM and SIGHUP are not cleared.
  static void reset();
};

/// Exits with `status` without running destructors of static objects, which threads of the plug-in may still
/// use. The first caller decides the status. Any thread.
[[noreturn]] void leave(int status);
/// `restore` is called when the process exits, for state that outlives it (the terminal's settings); null
/// removes it. Must be async-signal-safe.
void setLeaveHook(void (*restore)());

}  // namespace kzv::cli
