#pragma once
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kzv::cli {

/// Declares a verb's options and arguments. Hides the command-line library, whose headers take seconds to
/// compile, from the verbs. The values are stored in the verb, which must outlive the parsing.
class VerbArguments {
 public:
  class Argument {
   public:
    explicit Argument(CLI::Option& option) : option_(&option) {}
    Argument& required();
    /// An empty value is wrong usage.
    Argument& notEmpty();
    /// The placeholder for an option's value in the help text; also selects the completion (see
    /// ArgumentKind).
    Argument& valueName(const std::string& word);
    /// Not in the help text.
    Argument& hidden();
    /// Giving both is wrong usage.
    Argument& excludes(const Argument& other);

   private:
    CLI::Option* option_;
  };

  explicit VerbArguments(CLI::App& command) : command_(command) {}

  /// @param name  "-l" or "--long" for an option; "PATH" for an argument, which is optional unless
  /// required().
  Argument flag(const std::string& name, bool& value, const std::string& help);
  Argument value(const std::string& name, std::string& value, const std::string& help = "");
  Argument value(const std::string& name, std::optional<std::string>& value, const std::string& help);
  Argument value(const std::string& name, int& value, const std::string& help = "");
  /// One or more; the last argument only.
  Argument values(const std::string& name, std::vector<std::string>& values, const std::string& help);

 private:
  CLI::App& command_;
};

}  // namespace kzv::cli
