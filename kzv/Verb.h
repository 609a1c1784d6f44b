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

/// What a verb works with, and where it reports failures. The verb's thread uses it; fail and
/// failUnanswered may be used from any thread.
class VerbContext {
 public:
  /// @param currentFolder  the remote folder that paths without a first slash count from.
  VerbContext(std::string verb, const GlobalOptions& options, Console& console, HostSession& session,
              std::string currentFolder = "/");

  const GlobalOptions& options;
  Console& console;
  HostSession& session;

  /// Reports one failure on standard error; `path` may be empty. The worst failure decides the exit status: a
  /// stop before all others, and is reported once. An empty `error` means that the operation gave no reason.
  void fail(std::string_view path, NSErrorRef error);
  /// Reports what another process of this program has said on its standard error, and how it ended.
  void failAsSaid(std::string_view said, int exitStatus);
  /// Reports the stop of a verb that does not answer. Waits for nothing that the verb may hold.
  void failUnanswered();
  ExitStatus status() const;
  /// The status of a verb that runs others.
  void setStatus(ExitStatus status);

  /// The volume to work on; null after having reported why not.
  std::shared_ptr<FSPlugin> openVolume();
  /// The remote path that was typed, counted from the current folder, in the file system's form; empty after
  /// having reported why not.
  std::string pathFrom(const std::string& typed);
  /// Whether a local path was typed that can mean something; false after having reported that it is empty,
  /// which the system would take for the current folder.
  bool isLocalPath(const std::string& typed);
  /// True when the work should end: the person asked for it (then it is reported as a failure of `path`), or
  /// standard output takes no more lines.
  bool shouldStop(std::string_view path);
  /// What is being worked on now, for the message when the program has to end without the verb's answer.
  void setSubject(std::string_view path);

 private:
  bool record(ExitStatus status);

  const std::string verb_;
  const std::string currentFolder_;
  mutable std::mutex mutex_;
  std::string subject_;                   // guarded by mutex_
  ExitStatus status_ = ExitStatus::done;  // guarded by mutex_
};

/// One command: its words on the command line and what it does. To add one, write a class in
/// kzv/verbs/NAMEVerb.cpp and name it in kzv/verbs/Verbs.h.
class Verb {
 public:
  struct Words {
    const char* name;
    const char* summary;  // one line
    const char* example;  // a line or two as a person would type them
  };

  virtual ~Verb() = default;
  virtual Words words() const = 0;
  /// Declares options and arguments; they are stored in the verb.
  virtual void declare(VerbArguments& arguments) = 0;
  /// Does it. Runs on a thread of its own, may block. Failures go to context.fail.
  virtual void run(VerbContext& context) = 0;
};

/// Runs the verb to its end: an exception is a failure, what it printed is shown, and a failure of that is
/// one, too. On the verb's thread.
void runVerb(Verb& verb, VerbContext& context);

/// All verbs in the order of the help text.
std::vector<std::unique_ptr<Verb>> allVerbs();

}  // namespace kzv::cli
