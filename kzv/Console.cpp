#include "kzv/Console.h"

#include <cerrno>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kzv::cli {

namespace {

constexpr std::size_t bufferBytes = std::size_t{64} * 1024;

/// 0, or the errno value.
int writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {  // the terminal's owner made it non-blocking
      pollfd waiting{file, POLLOUT, 0};
      ::poll(&waiting, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

Console::Console(bool isQuiet)
    : isQuiet_(isQuiet),
      showsProgress_(!isQuiet && ::isatty(STDERR_FILENO) == 1),
      isTerminal_(::isatty(STDOUT_FILENO) == 1) {}

void Console::line(std::string_view text) {
  const std::lock_guard lock(outputMutex_);
  if (isClosed_) return;
  (buffer_ += text) += '\n';
  if (isTerminal_ || buffer_.size() >= bufferBytes) writeBuffer();
}

bool Console::flush() {
  const std::lock_guard lock(outputMutex_);
  return writeBuffer();
}

bool Console::writeBuffer() {
  if (isClosed_) return false;
  if (buffer_.empty()) return true;
  if (isTerminal_) {
    const std::lock_guard lock(errorMutex_);
    removeProgress();
  }
  const int reason = writeAll(STDOUT_FILENO, buffer_);
  buffer_.clear();
  if (reason == 0) return true;
  isClosed_ = true;
  if (reason != EPIPE) outputErrno_ = reason;
  return false;
}

bool Console::isClosed() const {
  const std::lock_guard lock(outputMutex_);
  return isClosed_;
}

NSErrorRef Console::outputError() const {
  const std::lock_guard lock(outputMutex_);
  return outputErrno_ ? NSError::posix(outputErrno_, "standard output") : nullptr;
}

void Console::error(std::string_view text) {
  const std::lock_guard lock(errorMutex_);
  removeProgress();
  writeError(std::string(text) + "\n");
}

void Console::note(std::string_view text) {
  if (!isQuiet_) error(text);
}

void Console::prompt(std::string_view text) {
  const std::lock_guard lock(errorMutex_);
  removeProgress();
  writeError(text);
}

std::size_t Console::progressWidth() {
  winsize size{};
  constexpr std::size_t usual = 80;
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 20) return usual - 1;
  return size.ws_col - 1U;  // the last column would wrap on some terminals
}

void Console::progress(std::string_view text) {
  if (!showsProgress_) return;
  const std::lock_guard lock(errorMutex_);
  removeProgress();
  if (text.empty()) return;
  writeError(text);
  isProgressVisible_ = true;
}

void Console::removeProgress() {
  if (!isProgressVisible_) return;
  writeError("\r\x1b[K");
  isProgressVisible_ = false;
}

void Console::writeError(std::string_view text) {
  writeAll(STDERR_FILENO, text);  // a failure could not be reported anywhere
}

}  // namespace kzv::cli
