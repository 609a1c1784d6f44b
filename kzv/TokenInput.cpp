#include "kzv/TokenInput.h"

#include <cerrno>
#include <string_view>

#include <termios.h>
#include <unistd.h>

#include "foundation/Secrets.h"
#include "kzv/HostError.h"
#include "kzv/InputLine.h"
#include "kzv/StopSignal.h"

namespace kzv::cli {

namespace {

constexpr std::size_t limitBytes = std::size_t{64} * 1024;

/// Turns the terminal's echo off while this lives; it is restored however the process ends.
class EchoOff {
 public:
  EchoOff() {
    if (::tcgetattr(STDIN_FILENO, &before()) != 0) return;
    termios silent = before();
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    setLeaveHook(restore);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;
  ~EchoOff() {
    restore();
    setLeaveHook(nullptr);
  }

 private:
  static termios& before() {
    static termios settings{};
    return settings;
  }
  static void restore() { ::tcsetattr(STDIN_FILENO, TCSANOW, &before()); }
};

void prompt(std::string_view text) {
  [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n\v\f";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Reads all of standard input, or its first line, until the limit is exceeded. Returns 0 or an errno value,
/// ECANCELED on a stop.
int readInput(bool onlyOneLine, std::string& text) {
  char buffer[4096];
  while (text.size() <= limitBytes) {
    if (onlyOneLine && !waitForInput()) return ECANCELED;
    const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
    if (onlyOneLine && text.find('\n') != std::string::npos) break;
  }
  return 0;
}

int readFromPerson(std::string& text) {
  const EchoOff echoOff;  // before the prompt, so that nothing typed after it is shown or lost
  prompt("Access token (not shown): ");
  const int reason = readInput(true, text);
  prompt("\n");
  return reason;
}

}  // namespace

std::optional<std::string> readToken(NSErrorRef* error) {
  std::string text;
  text.reserve(limitBytes);  // growing would leave copies in memory
  const SecretScope cleared(text);
  const bool isTerminal = ::isatty(STDIN_FILENO) == 1;
  if (const int reason = isTerminal ? readFromPerson(text) : readInput(false, text)) {
    setError(error, reason == ECANCELED ? stoppedError() : NSError::posix(reason, "standard input"));
    return std::nullopt;
  }
  if (text.size() > limitBytes) {
    setError(error,
             hostError(HostErrorCode::badInput, "standard input has more than 64 KiB: that is not a token"));
    return std::nullopt;
  }
  const std::string_view token = trimmed(text);
  if (token.empty()) {
    setError(error, hostError(HostErrorCode::badInput, "standard input has no token"));
    return std::nullopt;
  }
  return std::string(token);
}

}  // namespace kzv::cli
