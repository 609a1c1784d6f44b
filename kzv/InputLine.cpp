#include "kzv/InputLine.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

#include "kzv/StopSignal.h"

namespace kzv::cli {

bool waitForInput() {
  constexpr int tickMilliseconds = 100;  // shorter than the grace period after a stop
  pollfd waits{STDIN_FILENO, POLLIN, 0};
  while (!StopSignal::isRequested())
    if (::poll(&waits, 1, tickMilliseconds) > 0) return true;
  return false;
}

std::optional<std::string> readInputLine() {
  std::string line;
  while (waitForInput()) {
    char byte = 0;
    const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) break;
    if (byte == '\n') return line;
    line += byte;
  }
  return std::nullopt;
}

}  // namespace kzv::cli
