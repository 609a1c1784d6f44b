// kzv: plug-in file systems on the command line. Each verb is a class in kzv/verbs/.
#include <atomic>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <sys/prctl.h>

#include "foundation/NSLog.h"
#include "foundation/NSRunLoop.h"
#include "foundation/NSThread.h"
#include "foundation/StandardStreams.h"
#include "kzv/CommandLine.h"
#include "kzv/Console.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/StopSignal.h"

namespace kzv::cli {
namespace {

int show(const Answer& answer) {
  Console console(false);
  if (answer.status == ExitStatus::done) {
    console.line(answer.text);
  } else {
    console.error(answer.text);
  }
  console.flush();
  return static_cast<int>(answer.status);
}

void setUpLogging(const GlobalOptions& options) {
  if (options.verbose) setLogLevel(NSLogLevel::debug);
  if (options.quiet) setLogLevel(NSLogLevel::error);
}

/// The verb's operations block, so they run on a thread of their own, which leaves the main thread free for
/// the main queue.
void runBesideMainLoop(Verb& verb, VerbContext& context) {
  const auto mainLoop = NSRunLoop::mainRunLoop();
  std::atomic<bool> isDone{false};
  std::thread worker([&] {
    setCurrentThreadName("kzv-verb");
    runVerb(verb, context);
    context.session.close();
    isDone = true;
    mainLoop->stop();
  });
  while (!isDone) mainLoop->waitUntilDate(NSRunLoop::Clock::now() + std::chrono::hours(1));
  worker.join();
}

/// Does not return.
[[noreturn]] void run(const GlobalOptions& options, Verb& verb) {
  applyToEnvironment(options);
  setUpLogging(options);
  NSThread::mainThread();  // makes this thread the main one
  Console console(options.quiet);
  HostSession session;
  VerbContext context(verb.words().name, options, console, session);
  StopSignal::install([&context] { context.failUnanswered(); });

  NSErrorRef error;
  if (session.load(&error)) {
    runBesideMainLoop(verb, context);
  } else {
    context.fail("", error);
  }
  leave(static_cast<int>(context.status()));
}

}  // namespace

/// @param arguments  without the program's name.
static int runProgram(const std::vector<std::string>& arguments) {
  openMissingStandardStreams();
  // Tokens are in this process's memory: no core dump, and no debugger of the same user (PR_SET_DUMPABLE,
  // prctl(2)).
  ::prctl(PR_SET_DUMPABLE, 0);
  const auto verbs = allVerbs();
  const auto parsed = parseCommandLine(arguments, verbs);
  if (const auto* answer = std::get_if<Answer>(&parsed)) return show(*answer);
  const auto& [options, verb] = std::get<Command>(parsed);

  try {
    run(options, *verb);
  } catch (const std::system_error& failure) {  // no thread could be started
    show({fmt::format("kzv: {}: {}", verb->words().name, failure.what()), ExitStatus::failed});
    leave(static_cast<int>(ExitStatus::failed));
  }
}

}  // namespace kzv::cli

int main(int argc, char** argv) { return kzv::cli::runProgram({argv + 1, argv + argc}); }
