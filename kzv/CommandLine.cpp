#include "kzv/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>

#include <fmt/format.h>

#include "kzv/Formatting.h"

namespace kzv::cli {

namespace {

constexpr const char* intro =
    "Browse and change cloud accounts from the command line.\n"
    "Paths are those of the account: \"/\" is its root; a missing first slash is added.";
constexpr const char* outro =
    "Environment: the variables in brackets above, and KZV_LONG_POLL=0, which polls for changes every\n"
    "30 seconds instead of keeping a request open at the service.\n"
    "Exit status: 0 done; 1 the operation failed; 2 wrong usage; 3 no such account, or none;\n"
    "130 stopped by the user. `kzv VERB --help` shows a verb's options and an example.";

void declareGlobal(CLI::App& app, GlobalOptions& options) {
  app.add_option("--account", options.account, "The account, by id or label (default: the only one)")
      ->option_text("ID-OR-LABEL");
  app.add_flag("--json", options.json, "Results as JSON, one object per line");
  auto* quiet = app.add_flag("--quiet", options.quiet, "No progress, no hints");
  app.add_flag("--verbose", options.verbose, "Diagnostics on standard error")->excludes(quiet);
  app.add_option("--service", options.service, "One origin for all hosts of the service [KZV_SERVICE_URL]")
      ->option_text("URL")
      ->check([](const std::string& url) {
        const bool isWeb = url.starts_with("http://") || url.starts_with("https://");
        return isWeb ? std::string() : "must begin with http:// or https://";
      });
  app.add_option("--home", options.home, "Keep settings, tokens and caches in one folder [KZV_HOME]")
      ->option_text("DIR");
  app.add_option("--app-key", options.appKey, "The key of your own registered application [KZV_APP_KEY]")
      ->option_text("KEY");
}

/// The library would split an argument like "[a,b]" in two, although it may be a file name. A guard character
/// before such arguments prevents that; it is removed before the verb sees them.
constexpr char guard = '\x02';

std::string guarded(const std::string& argument) {
  const bool isAtRisk = argument.starts_with('[') || argument.starts_with(guard);
  return isAtRisk ? guard + argument : argument;
}

std::string unguarded(std::string argument) {
  if (argument.starts_with(guard)) argument.erase(0, 1);
  return argument;
}

CLI::App* declareVerb(CLI::App& app, Verb& verb) {
  const Verb::Words words = verb.words();
  CLI::App* command = app.add_subcommand(words.name, words.summary);
  command->fallthrough();  // global options are allowed after the verb, too
  command->footer(fmt::format("Example:\n{}", words.example));
  VerbArguments arguments(*command);
  verb.declare(arguments);
  for (CLI::Option* option : command->get_options()) option->transform(unguarded);
  return command;
}

std::string firstLine(std::string text) {
  text.resize(std::min(text.find('\n'), text.size()));
  return text;
}

/// How to get help: in the shell, or else on the command line.
std::string helpHint(const CLI::App& app, const std::string& verb) {
  if (app.get_name().empty()) return verb.empty() ? "help" : "help " + verb;
  return verb.empty() ? "kzv --help" : fmt::format("kzv {} --help", verb);
}

Answer refusal(const CLI::App& app, const CLI::ParseError& error) {
  const auto chosen = app.get_subcommands();
  std::string reason = firstLine(error.what());
  if (chosen.empty()) {
    const auto remaining = app.remaining();
    reason = remaining.empty() ? "no verb given" : fmt::format("no verb \"{}\"", remaining.front());
    if (dynamic_cast<const CLI::RequiredError*>(&error) == nullptr) reason = firstLine(error.what());
    return {fmt::format("kzv: {}; see {}", harmless(reason), helpHint(app, "")), ExitStatus::usage};
  }
  const std::string verb = chosen.front()->get_name();
  return {fmt::format("kzv: {}: {}; see {}", verb, harmless(reason), helpHint(app, verb)), ExitStatus::usage};
}

/// The error for the first option that a single line of the shell cannot change, if any.
std::optional<Answer> refusalOfProcessOption(const CLI::App& app, const std::string& verb) {
  for (const char* name : {"--quiet", "--verbose", "--service", "--home", "--app-key"}) {
    if (app.get_option(name)->count() == 0) continue;
    return Answer{fmt::format("kzv: {}: {} applies to the whole shell: kzv {} ... shell", verb, name, name),
                  ExitStatus::usage};
  }
  return std::nullopt;
}

ArgumentKind kindNamed(const std::string& word) {
  static const std::map<std::string, ArgumentKind> kinds{{"PATH", ArgumentKind::remotePath},
                                                         {"REMOTE", ArgumentKind::remotePath},
                                                         {"FROM", ArgumentKind::remotePath},
                                                         {"TO", ArgumentKind::remotePath},
                                                         {"FOLDER", ArgumentKind::remoteFolder},
                                                         {"LOCAL", ArgumentKind::localPath},
                                                         {"FILE", ArgumentKind::localPath},
                                                         {"DIR", ArgumentKind::localPath},
                                                         {"ID", ArgumentKind::account},
                                                         {"ID-OR-LABEL", ArgumentKind::account},
                                                         {"VERB", ArgumentKind::verb}};
  const auto found = kinds.find(word);
  return found == kinds.end() ? ArgumentKind::other : found->second;
}

void addTo(VerbSyntax& syntax, const CLI::Option& option) {
  if (option.get_positional()) {
    syntax.arguments.push_back(kindNamed(option.get_name(true)));
    syntax.repeatsLast = option.get_items_expected_max() > 1;
    return;
  }
  std::vector<std::string> names;
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (std::string& name : names) {
    if (option.get_items_expected_max() == 0) {
      syntax.flags.push_back(std::move(name));
    } else {
      syntax.valueOptions.emplace(std::move(name), kindNamed(option.get_option_text()));
    }
  }
}

}  // namespace

std::variant<Command, Answer> parseCommandLine(const std::vector<std::string>& arguments,
                                               const std::vector<std::unique_ptr<Verb>>& verbs,
                                               const GlobalOptions* shellOptions) {
  Command command;
  if (shellOptions) command.options = *shellOptions;
  CLI::App app(intro, shellOptions ? "" : "kzv");
  app.footer(outro);
  app.require_subcommand(1);
  app.set_version_flag("--version", "kzv " KZV_VERSION, "The program's version");
  declareGlobal(app, command.options);
  for (const auto& verb : verbs) {
    declareVerb(app, *verb)->final_callback([&command, &verb] { command.verb = verb.get(); });
  }
  std::vector<std::string> reversed;  // the library expects them in reverse order
  std::transform(arguments.rbegin(), arguments.rend(), std::back_inserter(reversed), guarded);
  try {
    app.parse(std::move(reversed));
  } catch (const CLI::CallForVersion& version) {
    return Answer{version.what(), ExitStatus::done};
  } catch (const CLI::CallForHelp&) {
    const auto chosen = app.get_subcommands();
    std::string text = chosen.empty() ? app.help() : chosen.front()->help();
    while (text.ends_with('\n')) text.pop_back();
    return Answer{std::move(text), ExitStatus::done};
  } catch (const CLI::ParseError& error) {
    return refusal(app, error);
  }
  if (shellOptions) {
    if (auto refused = refusalOfProcessOption(app, command.verb->words().name)) return *std::move(refused);
  }
  return command;
}

VerbSyntax syntaxOf(Verb& verb) {
  CLI::App app;
  VerbArguments arguments(app);
  verb.declare(arguments);
  VerbSyntax syntax;
  syntax.name = verb.words().name;
  for (const CLI::Option* option : app.get_options()) addTo(syntax, *option);
  return syntax;
}

VerbSyntax shellLineSyntax() {
  GlobalOptions unused;
  CLI::App app;
  declareGlobal(app, unused);
  VerbSyntax syntax;
  for (const char* name : {"--account", "--json"}) addTo(syntax, *app.get_option(name));
  return syntax;
}

void applyToEnvironment(const GlobalOptions& options) {
  const auto set = [](const char* name, const std::string& value) {
    if (!value.empty()) ::setenv(name, value.c_str(), 1);
  };
  set("KZV_SERVICE_URL", options.service);
  set("KZV_HOME", options.home);
  set("KZV_APP_KEY", options.appKey);
  if (const char* home = std::getenv("KZV_HOME"); home && *home && *home != '/') {
    std::error_code code;
    const auto absolute = std::filesystem::absolute(home, code);
    if (!code) ::setenv("KZV_HOME", absolute.c_str(), 1);
  }
}

}  // namespace kzv::cli
