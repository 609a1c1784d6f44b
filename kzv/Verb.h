#pragma once
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/FSPlugin.h"
#include "kzv/ExitStatus.h"
#include "kzv/GlobalOptions.h"
#include "kzv/VerbArguments.h"

namespace kzv::cli {

class Console;
class HostSession;

/// A verb's environment, to which it also reports failures. For the verb's thread; fail and failUnanswered
/// may be called from any thread.
class VerbContext {
 public:
  /// @param currentFolder  the remote folder of relative paths.
  VerbContext(std::string verb, const GlobalOptions& options, Console& console, HostSession& session,
              std::string currentFolder = "/");

  const GlobalOptions& options;
  Console& console;
  HostSession& session;

  /// Reports one failure on standard error; `path` may be empty. The first failure decides the exit status,
  /// unless there is a stop, which is reported once. A null `error` means that the operation returned none.
  void fail(std::string_view path, NSErrorRef error);
  /// Reports the failure of another process of this program: its output and its exit status.
  void failWithOutput(std::string_view output, int exitStatus);
  /// Reports the stop of a verb that does not respond. Takes no lock that the verb may hold for long.
  void failUnanswered();
  ExitStatus status() const;
  /// Sets the status of a verb that runs others.
  void setStatus(ExitStatus status);

  /// The account's volume; null after reporting the failure.
  std::shared_ptr<FSPlugin> openVolume();
  /// The absolute, normalised path for a typed remote path; empty after reporting that it is invalid.
  std::string pathFrom(const std::string& typed);
  /// False after reporting that the typed path is empty, which the system would take for the current folder.
  bool isLocalPath(const std::string& typed);
  /// True when the work should end: a stop was requested (then it is reported as a failure of `path`), or
  /// standard output is closed.
  bool shouldStop(std::string_view path);
  /// Sets the path that failUnanswered names.
  void setSubject(std::string_view path);

 private:
  bool record(ExitStatus status);

  const std::string verb_;
  const std::string currentFolder_;
  mutable std::mutex mutex_;
  std::string subject_;                   // guarded by mutex_
  ExitStatus status_ = ExitStatus::done;  // guarded by mutex_
};

/// One command of the program. To add one, write a class in kzv/verbs/NAMEVerb.cpp and name it in
/// kzv/verbs/Verbs.h.
class Verb {
 public:
  struct Words {
    const char* name;
    const char* summary;  // one line
    const char* example;  // one or more lines
  };

  virtual ~Verb() = default;
  virtual Words words() const = 0;
  /// Declares options and arguments; they are stored in the verb.
  virtual void declare(VerbArguments& arguments) = 0;
  /// Runs the command, on a thread of its own; may block. Failures go to context.fail.
  virtual void run(VerbContext& context) = 0;
};

/// Runs the verb and flushes its output; exceptions and output errors are reported as failures. On the verb's
/// thread.
void runVerb(Verb& verb, VerbContext& context);

/// All verbs in the order of the help text.
std::vector<std::unique_ptr<Verb>> allVerbs();

}  // namespace kzv::cli
