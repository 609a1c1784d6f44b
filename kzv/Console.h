#pragma once
#include <mutex>
#include <string>
#include <string_view>

#include "foundation/NSError.h"

namespace kzv::cli {

/// The program's two output streams. Results go to standard output through a buffer; notes, errors and the
/// progress line go to standard error, which is never buffered. One object per process. Any thread.
class Console {
 public:
  /// @param isQuiet  no notes, no progress line.
  explicit Console(bool isQuiet);
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Adds one line to standard output. On a terminal it is shown at once.
  void line(std::string_view text);
  /// Writes the buffer. False when standard output is closed (see isClosed).
  bool flush();
  /// Whether standard output accepts no more lines: its reader has closed it, which is no failure (a pipe
  /// into `head`), or writing failed (see outputError).
  bool isClosed() const;
  NSErrorRef outputError() const;

  /// One line on standard error; a progress line is removed first.
  void error(std::string_view text);
  /// As error, but not when quiet: for hints.
  void note(std::string_view text);
  /// A question on standard error, without an end of line.
  void prompt(std::string_view text);

  /// Whether a progress line can be shown: standard error is a terminal, and not quiet.
  bool showsProgress() const noexcept { return showsProgress_; }
  /// The maximal length of the progress line, in characters.
  static std::size_t progressWidth();
  /// Replaces the progress line; empty removes it.
  void progress(std::string_view text);

 private:
  bool writeBuffer();
  void writeError(std::string_view text);
  void removeProgress();

  const bool isQuiet_;
  const bool showsProgress_;
  const bool isTerminal_;
  // Two locks, because a reader that does not read may block a line of results for ever, and errors must be
  // shown even then. outputMutex_ is locked first.
  mutable std::mutex outputMutex_;
  std::string buffer_;     // guarded by outputMutex_
  bool isClosed_ = false;  // guarded by outputMutex_
  int outputErrno_ = 0;    // guarded by outputMutex_
  std::mutex errorMutex_;
  bool isProgressVisible_ = false;  // guarded by errorMutex_
};

}  // namespace kzv::cli
