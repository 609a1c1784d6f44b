#include "kzv/shell/PromptSignals.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace kzv::cli {

namespace {

constexpr std::array signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGCONT};
std::array<struct sigaction, signals.size()> before;

struct Pipe {
  Pipe() { [[maybe_unused]] const int failed = ::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK); }
  std::array<int, 2> ends{-1, -1};
};
/// Never closed: a handler may still run on another thread after the handlers were restored.
Pipe& signalPipe() {
  static auto& pipe = *new Pipe;
  return pipe;
}
int writer = -1;  // set before the handlers are installed

extern "C" void onPromptSignal(int number) {
  const int errorBefore = errno;
  const auto byte = static_cast<unsigned char>(number);
  [[maybe_unused]] const ssize_t ignored = ::write(writer, &byte, 1);
  errno = errorBefore;
}

}  // namespace

PromptSignals::PromptSignals() {
  writer = signalPipe().ends[1];
  struct sigaction action {};
  action.sa_handler = onPromptSignal;
  action.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < signals.size(); ++i) {
    ::sigaction(signals[i], nullptr, &before[i]);
    const bool isWanted = signals[i] != SIGHUP || before[i].sa_handler != SIG_IGN;  // nohup
    if (isWanted) ::sigaction(signals[i], &action, nullptr);
  }
}

PromptSignals::~PromptSignals() {
  for (std::size_t i = 0; i < signals.size(); ++i) ::sigaction(signals[i], &before[i], nullptr);
}

int PromptSignals::file() { return signalPipe().ends[0]; }

std::optional<int> PromptSignals::take() {
  unsigned char number = 0;
  if (::read(file(), &number, 1) != 1) return std::nullopt;
  return number;
}

}  // namespace kzv::cli
