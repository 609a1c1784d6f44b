#include <csignal>
#include <cstdio>
#include <exception>

#include <pthread.h>

#include "foundation/StandardStreams.h"
#include "standin/Service.h"

namespace {

// Waits for the first stop signal; a second one then ends the process at once, by the default action.
void waitForStop(const sigset_t& signals) {
  int received = 0;
  sigwait(&signals, &received);
  std::signal(SIGTERM, SIG_DFL);
  std::signal(SIGINT, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  openMissingStandardStreams();
  int exitStatus = 0;
  const auto options = kzv::standin::parseServiceOptions(argc, argv, exitStatus);
  if (!options) return exitStatus;
  // Blocked before any thread is started, so that all threads leave the signals to waitForStop().
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    kzv::standin::Service service(*options);
    std::string error;
    const auto port = service.start(error);
    if (!port) {
      std::fprintf(stderr, "kzv-service: %s\n", error.c_str());
      return 1;
    }
    const bool isIpv6 = options->host.find(':') != std::string::npos;
    std::printf(isIpv6 ? "listening on http://[%s]:%d\n" : "listening on http://%s:%d\n",
                options->host.c_str(), *port);
    std::fflush(stdout);
    waitForStop(signals);
    service.stop();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kzv-service: %s\n", error.what());
    return 1;
  }
  return 0;
}
