#include <cerrno>
#include <filesystem>
#include <string_view>

#include <fmt/format.h>
#include <unistd.h>

#include "foundation/StandardFolders.h"
#include "kzv/CommandLine.h"
#include "kzv/Console.h"
#include "kzv/Entry.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/shell/ShellState.h"

namespace kzv::cli {

namespace {

class ShellOnlyVerb : public Verb {
 public:
  ShellOnlyVerb(ShellState& state, Words words) : state_(state), words_(words) {}
  Words words() const override { return words_; }
  void declare(VerbArguments& /*arguments*/) override {}

 protected:
  static void showPath(VerbContext& context, const std::string& path) {
    context.console.line(context.options.json ? jsonLine({{"path", path}}) : harmless(path));
  }
  ShellState& state_;

 private:
  const Words words_;
};

class AccountVerb final : public ShellOnlyVerb {
 public:
  explicit AccountVerb(ShellState& state)
      : ShellOnlyVerb(
            state, {"account", "Select the account of the following lines, or show it", "  account Ada"}) {}
  void declare(VerbArguments& arguments) override {
    arguments.value("ID", wanted_, "The account, by id or label");
  }
  void run(VerbContext& context) override {
    NSErrorRef error;
    const auto chosen = context.session.chooseAccount(wanted_ ? wanted_ : context.options.account, &error);
    if (!chosen) return context.fail(wanted_.value_or(""), error);
    if (wanted_) {
      state_.accountId = chosen;
      return;
    }
    const std::string label = context.session.labelOf(*chosen);
    context.console.line(context.options.json ? jsonLine({{"id", *chosen}, {"label", label}})
                                              : fmt::format("{}  {}", harmless(*chosen), harmless(label)));
  }

 private:
  std::optional<std::string> wanted_;
};

class CdVerb final : public ShellOnlyVerb {
 public:
  explicit CdVerb(ShellState& state)
      : ShellOnlyVerb(state, {"cd", "Go to a folder of the account", "  cd Documents\n  cd .."}) {}
  void declare(VerbArguments& arguments) override {
    arguments.value("FOLDER", typed_, "The new current folder (default: /)");
  }
  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    const std::string path = volume ? context.pathFrom(typed_) : std::string();
    if (path.empty() || context.shouldStop(path)) return;
    NSErrorRef error;
    const auto attributes = volume->attributesAtPath(path, &error);
    if (!attributes) return context.fail(path, error);
    if (!Entry::from(path, *attributes).isDirectory) return context.fail(path, NSError::posix(ENOTDIR, ""));
    if (state_.lineAccountId) state_.folders[*state_.lineAccountId] = path;
  }

 private:
  std::string typed_ = "/";
};

class PwdVerb final : public ShellOnlyVerb {
 public:
  explicit PwdVerb(ShellState& state)
      : ShellOnlyVerb(state, {"pwd", "Show the current folder of the account", "  pwd"}) {}
  void run(VerbContext& context) override { showPath(context, state_.currentFolder(state_.lineAccountId)); }
};

class LcdVerb final : public ShellOnlyVerb {
 public:
  explicit LcdVerb(ShellState& state)
      : ShellOnlyVerb(state, {"lcd", "Go to a folder of this computer", "  lcd ~/Downloads"}) {}
  void declare(VerbArguments& arguments) override {
    arguments.value("DIR", typed_, "The new current folder (default: your home)");
  }
  void run(VerbContext& context) override {
    const std::string path = typed_.empty() ? homeFolder() : typed_;
    if (::chdir(path.c_str()) != 0) context.fail(path, NSError::posix(errno, ""));
  }

 private:
  std::string typed_;
};

class LpwdVerb final : public ShellOnlyVerb {
 public:
  explicit LpwdVerb(ShellState& state)
      : ShellOnlyVerb(state, {"lpwd", "Show the current folder of this computer", "  lpwd"}) {}
  void run(VerbContext& context) override {
    std::error_code code;
    const auto path = std::filesystem::current_path(code);
    if (code) return context.fail("", NSError::posix(code.value(), ""));
    showPath(context, path.string());
  }
};

class HelpVerb final : public ShellOnlyVerb {
 public:
  explicit HelpVerb(ShellState& state)
      : ShellOnlyVerb(state, {"help", "List the commands, or explain one", "  help\n  help ls"}) {}
  void declare(VerbArguments& arguments) override { arguments.value("VERB", verb_, "The command"); }
  void run(VerbContext& context) override { verb_.empty() ? listAll(context) : explain(context); }

 private:
  void listAll(VerbContext& context) const {
    for (const auto& verb : *state_.lineVerbs) {
      const Words words = verb->words();
      if (std::string_view(words.name) != "shell")
        context.console.line(fmt::format("  {:<9} {}", words.name, words.summary));
    }
    context.console.line(
        "\nRelative paths start at the current folder. Names with blanks need quotes. Tab completes.\n"
        "Ctrl-C stops a command, Ctrl-D leaves. `help VERB` explains a command.");
  }
  void explain(VerbContext& context) const {
    const auto parsed = parseCommandLine({verb_, "--help"}, *state_.lineVerbs, &context.options);
    const auto* answer = std::get_if<Answer>(&parsed);
    if (answer && answer->status == ExitStatus::done) return context.console.line(answer->text);
    context.fail(verb_, hostError(HostErrorCode::badInput, "there is no such command"));
  }

  std::string verb_;
};

class ExitVerb final : public ShellOnlyVerb {
 public:
  ExitVerb(ShellState& state, const char* name, const char* example)
      : ShellOnlyVerb(state, {name, "Leave the shell", example}) {}
  void run(VerbContext& /*context*/) override { state_.isOver = true; }
};

}  // namespace

std::vector<std::unique_ptr<Verb>> shellOnlyVerbs(ShellState& state) {
  std::vector<std::unique_ptr<Verb>> verbs;
  verbs.push_back(std::make_unique<AccountVerb>(state));
  verbs.push_back(std::make_unique<CdVerb>(state));
  verbs.push_back(std::make_unique<PwdVerb>(state));
  verbs.push_back(std::make_unique<LcdVerb>(state));
  verbs.push_back(std::make_unique<LpwdVerb>(state));
  verbs.push_back(std::make_unique<HelpVerb>(state));
  verbs.push_back(std::make_unique<ExitVerb>(state, "exit", "  exit"));
  verbs.push_back(std::make_unique<ExitVerb>(state, "quit", "  quit"));
  return verbs;
}

}  // namespace kzv::cli
