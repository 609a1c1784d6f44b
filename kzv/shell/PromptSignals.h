#pragma once
#include <optional>

namespace kzv::cli {

/// Handles SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH and SIGCONT while a line is being edited, and makes
/// them readable from a descriptor, to be polled together with standard input. The destructor restores the
/// handlers. One at a time; constructed, used and destroyed on one thread.
class PromptSignals {
 public:
  PromptSignals();
  PromptSignals(const PromptSignals&) = delete;
  PromptSignals& operator=(const PromptSignals&) = delete;
  ~PromptSignals();

  /// The descriptor, for poll: readable when a signal has arrived.
  static int file();
  /// The next signal that has arrived, if any. Does not block.
  static std::optional<int> take();
};

}  // namespace kzv::cli
