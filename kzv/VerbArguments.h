#pragma once
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kzv::cli {

/// Declares what a verb takes on its command line. Verbs see this and not the library that reads command
/// lines, whose headers take seconds to compile. The values are stored in the verb, which must outlive the
/// parsing.
class VerbArguments {
 public:
  class Argument {
   public:
    explicit Argument(CLI::Option& option) : option_(&option) {}
    Argument& required();
    /// Wrong usage when an empty text is given.
    Argument& notEmpty();
    /// The word for an option's value in the help text; it also says what completion offers (see
    /// ArgumentKind).
    Argument& valueName(const std::string& word);
    /// Not in the help text.
    Argument& hidden();
    /// Wrong usage when both are given.
    Argument& excludes(const Argument& other);

   private:
    CLI::Option* option_;
  };

  explicit VerbArguments(CLI::App& command) : command_(command) {}

  /// @param name  "-l" or "--long" for an option; "PATH" for an argument, which may be left out unless
  /// required.
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
