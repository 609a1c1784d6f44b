#pragma once
#include <optional>

namespace kzv::cli {

/// Takes SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH and SIGCONT over while it lives, which is while a line is
/// edited: they become numbers to be read beside what is typed. What was in force before comes back at the
/// end. One at a time; made, used and destroyed on one thread.
class PromptSignals {
 public:
  PromptSignals();
  PromptSignals(const PromptSignals&) = delete;
  PromptSignals& operator=(const PromptSignals&) = delete;
  ~PromptSignals();

  /// Becomes readable when a signal has come; for poll.
  static int file();
  /// The next signal that has come, if any. Does not wait.
  static std::optional<int> take();
};

}  // namespace kzv::cli
