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

/// A command line that was understood: which verb, with its own arguments stored in it.
struct Command {
  GlobalOptions options;
  Verb* verb = nullptr;
};
/// A command line that ends at once: help or version (text for standard output), or wrong usage (one line for
/// standard error).
struct Answer {
  std::string text;
  ExitStatus status = ExitStatus::done;
};

/// Reads the program's arguments (without its name). Does not change the environment.
/// @param shellOptions  given for a line of the shell: the options that hold where the line gives no others.
///                      Those that belong to the whole process are refused there.
std::variant<Command, Answer> parseCommandLine(const std::vector<std::string>& arguments,
                                               const std::vector<std::unique_ptr<Verb>>& verbs,
                                               const GlobalOptions* shellOptions = nullptr);

/// What `verb` declares.
VerbSyntax syntaxOf(Verb& verb);
/// The options that every line of the shell takes, without a name.
VerbSyntax shellLineSyntax();

/// Puts the options that the layers below read from the environment there (KZV_SERVICE_URL, KZV_HOME,
/// KZV_APP_KEY), and makes a relative KZV_HOME absolute. Call it while there is only one thread.
void applyToEnvironment(const GlobalOptions& options);

}  // namespace kzv::cli
