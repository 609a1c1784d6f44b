#pragma once
#include <chrono>
#include <functional>

namespace kzv::cli {

/// Handles Ctrl-C and requests to end (SIGINT, SIGTERM, SIGHUP): the first one asks the work to stop; if the
/// program is still there shortly afterwards, for instance because it waits for the network, or if a second
/// one comes, it ends at once. Any thread unless a member says otherwise.
class StopSignal {
 public:
  /// Takes over the signals. Once per process, before other threads start.
  /// @param unanswered  runs on a thread of this class when the work did not stop in time, before the program
  ///                    ends with status 130; must not wait for that work, nor for what it may hold.
  static void install(std::function<void()> unanswered);
  /// For work that needs longer to end than a command: `onStop` runs, perhaps twice, on a thread of this
  /// class, at the first request to stop (at once, if that has come already), and the work then has `grace`
  /// to end. Null removes it: `onStop` does not run any more once this returns.
  static void whenRequested(std::function<void()> onStop, std::chrono::milliseconds grace);
  /// For a program that outlives its work, as a shell does: a Ctrl-C that the work does not answer in time
  /// does not end the program; `unanswered` runs instead, on a thread of this class, and a second Ctrl-C
  /// still ends it. Null removes it: `unanswered` does not run any more once this returns.
  static void outliveInterrupts(std::function<void()> unanswered);
  /// Whether a stop has been asked for.
  static bool isRequested() noexcept;
  /// The work has stopped, and the program continues with other work, as a shell does. A request to end the
  /// program (SIGTERM, SIGHUP) stays.
  static void reset();
};

/// Ends the process with `status` without running destructors of static objects, which threads of the plug-in
/// may still use. The first caller decides the status. Any thread.
[[noreturn]] void leave(int status);
/// `restore` runs when the process leaves, for what outlives a process (the terminal's settings); null
/// removes it. It must be safe at any moment on any thread.
void setLeaveHook(void (*restore)());

}  // namespace kzv::cli
