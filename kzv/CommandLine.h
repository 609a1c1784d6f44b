#pragma once
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "kzv/ExitStatus.h"
#include "kzv/GlobalOptions.h"
#include "kzv/Verb.h"
#include "kzv/VerbSyntax.h"

namespace kzv::cli {

/// A parsed command line: the verb, with its arguments stored in it.
struct Command {
  GlobalOptions options;
  Verb* verb = nullptr;
};
/// The text to print for help or version (standard output), or for wrong usage (one line, standard error).
struct Answer {
  std::string text;
  ExitStatus status = ExitStatus::done;
};

/// Parses the program's arguments (without its name). Does not change the environment.
/// @param shellOptions  given for a line of the shell: the defaults of the line's options.
///                      Options of the whole process are refused in a line.
std::variant<Command, Answer> parseCommandLine(const std::vector<std::string>& arguments,
                                               const std::vector<std::unique_ptr<Verb>>& verbs,
                                               const GlobalOptions* shellOptions = nullptr);

/// The options and arguments that `verb` declares.
VerbSyntax syntaxOf(Verb& verb);
/// The options that every line of the shell accepts; the name is empty.
VerbSyntax shellLineSyntax();

/// Sets the environment variables that the layers below read (KZV_SERVICE_URL, KZV_HOME, KZV_APP_KEY) from
/// the options, and makes a relative KZV_HOME absolute. Call it while there is only one thread.
void applyToEnvironment(const GlobalOptions& options);

}  // namespace kzv::cli
