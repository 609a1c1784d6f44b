#include "kzv/Verb.h"

#include <exception>

#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/StopSignal.h"

namespace kzv::cli {

namespace {
NSErrorRef emptyPathError() { return hostError(HostErrorCode::badInput, "an empty path names nothing"); }
}  // namespace

VerbContext::VerbContext(std::string verb, const GlobalOptions& globalOptions, Console& theConsole,
                         HostSession& theSession, std::string currentFolder)
    : options(globalOptions),
      console(theConsole),
      session(theSession),
      verb_(std::move(verb)),
      currentFolder_(std::move(currentFolder)) {}

bool VerbContext::record(ExitStatus status) {
  const std::lock_guard lock(mutex_);
  if (status_ == ExitStatus::stopped) return false;  // failures caused by the stop are not reported
  if (status_ == ExitStatus::done || status == ExitStatus::stopped) status_ = status;
  return true;
}

void VerbContext::fail(std::string_view path, NSErrorRef error) {
  if (!error) error = session.missingError();
  if (!record(exitStatusFor(*error))) return;
  console.flush();  // keeps results and errors in order
  console.error(failureLine(verb_, path, *error));
}

void VerbContext::failWithOutput(std::string_view output, int exitStatus) {
  const auto status = static_cast<ExitStatus>(exitStatus);
  if (!record(status == ExitStatus::done ? ExitStatus::failed : status)) return;
  console.flush();
  while (output.ends_with('\n')) output.remove_suffix(1);
  console.error(output.empty() ? fmt::format("kzv: {}: ended with status {}", verb_, exitStatus)
                               : std::string(output));
}

void VerbContext::failUnanswered() {
  if (!record(ExitStatus::stopped)) return;
  std::string subject;
  {
    const std::lock_guard lock(mutex_);
    subject = subject_;
  }
  console.error(failureLine(verb_, subject, *stoppedError()));
}

ExitStatus VerbContext::status() const {
  const std::lock_guard lock(mutex_);
  return status_;
}

void VerbContext::setStatus(ExitStatus status) {
  const std::lock_guard lock(mutex_);
  status_ = status;
}

std::shared_ptr<FSPlugin> VerbContext::openVolume() {
  NSErrorRef error;
  auto volume = session.openVolume(options.account, &error);
  if (!volume) fail("", error);
  return volume;
}

std::string VerbContext::pathFrom(const std::string& typed) {
  // An unset variable of a script must not mean the whole account.
  if (typed.empty()) {
    fail("", emptyPathError());
    return {};
  }
  auto path = remotePath(typed, currentFolder_);
  if (path) return *std::move(path);
  fail(typed, hostError(HostErrorCode::badInput, "not a path: it must be valid UTF-8 and stay below \"/\""));
  return {};
}

bool VerbContext::isLocalPath(const std::string& typed) {
  if (typed.empty()) fail("", emptyPathError());
  return !typed.empty();
}

bool VerbContext::shouldStop(std::string_view path) {
  setSubject(path);
  if (StopSignal::isRequested()) fail(path, stoppedError());
  return StopSignal::isRequested() || console.isClosed();
}

void VerbContext::setSubject(std::string_view path) {
  const std::lock_guard lock(mutex_);
  subject_ = path;
}

void runVerb(Verb& verb, VerbContext& context) {
  try {
    verb.run(context);
  } catch (const std::exception& problem) {
    context.fail("", hostError(HostErrorCode::internal, problem.what()));
  }
  context.console.progress("");
  if (!context.console.flush() && context.console.outputError())
    context.fail("", context.console.outputError());
}

}  // namespace kzv::cli
