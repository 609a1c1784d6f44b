#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kzv/Verb.h"
#include "kzv/shell/Completion.h"
#include "kzv/shell/HistoryFile.h"
#include "kzv/shell/ShellState.h"

namespace kzv::cli {

class LineEditor;

/// Runs one command per line in the session of `context`: at a terminal with prompt, history and completion,
/// else as a script. Constructed and used on the verb's thread; once per process.
class Shell {
 public:
  explicit Shell(VerbContext& context);
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;
  ~Shell();

  /// Blocks until `exit`, the end of the input or a stop. Sets the context's status.
  void run();

 private:
  bool selectFirstAccount();
  void followLinkedAccounts();
  void runInteractive();
  void runScript();
  void runTypedLine(LineEditor& editor, const std::string& line);
  /// The result of one line.
  struct Outcome {
    ExitStatus status = ExitStatus::done;
    bool isValid = false;
    bool mayContainSecret = false;  // pasted by mistake
  };
  /// @param place  names the line in error messages; may be empty.
  Outcome runLine(const std::string& line, const std::string& place);
  ExitStatus runCommand(Verb& verb, const GlobalOptions& lineOptions);
  void greet();
  std::string prompt() const;

  std::optional<Completion> completeLine(const std::string& line);
  std::vector<CompletionName> namesFor(ArgumentKind kind, const std::string& folder);

  VerbContext& context_;
  ShellState state_;
  HistoryFile history_;
};

}  // namespace kzv::cli
