#include "kzv/shell/Shell.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "kzv/CommandLine.h"
#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/StopSignal.h"
#include "kzv/shell/FolderNames.h"
#include "kzv/shell/LineEditor.h"
#include "kzv/shell/LineWords.h"

namespace kzv::cli {

namespace {

bool isInteractive() { return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1; }

std::vector<std::unique_ptr<Verb>> verbsFor(ShellState& state) {
  auto verbs = allVerbs();
  for (auto& verb : shellOnlyVerbs(state)) verbs.push_back(std::move(verb));
  return verbs;
}

bool isNamed(const Verb& verb, std::string_view name) { return verb.words().name == name; }

/// The lines of standard input. Commands get /dev/null as their input, so that they cannot consume lines.
class Script {
 public:
  Script() : file_(::fdopen(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "r")) {
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(nothing, STDIN_FILENO);
    ::close(nothing);
  }
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;
  ~Script() {
    if (file_) std::fclose(file_);
    std::free(buffer_);  // NOLINT(cppcoreguidelines-no-malloc): getline's
  }

  bool next(std::string& line) {
    if (!file_) return false;
    const ssize_t length = ::getline(&buffer_, &capacity_, file_);
    if (length < 0) return false;
    line.assign(buffer_, static_cast<std::size_t>(length));
    while (line.ends_with('\n') || line.ends_with('\r')) line.pop_back();
    return true;
  }

 private:
  FILE* const file_;
  char* buffer_ = nullptr;
  std::size_t capacity_ = 0;
};

}  // namespace

Shell::Shell(VerbContext& context) : context_(context) {}

Shell::~Shell() = default;

void Shell::run() {
  context_.session.watchVolumes();
  if (!selectFirstAccount()) return;
  isInteractive() ? runInteractive() : runScript();
}

bool Shell::selectFirstAccount() {
  if (!context_.options.account) {
    followLinkedAccounts();
    return true;
  }
  NSErrorRef error;
  state_.accountId = context_.session.chooseAccount(context_.options.account, &error);
  if (!state_.accountId) context_.fail("", error);
  return state_.accountId.has_value();
}

/// Accounts may be linked and unlinked meanwhile: deselects one that is gone, selects the only one.
void Shell::followLinkedAccounts() {
  const auto ids = context_.session.linkedIds();
  if (state_.accountId && std::find(ids.begin(), ids.end(), *state_.accountId) == ids.end())
    state_.accountId.reset();
  if (!state_.accountId && ids.size() == 1) state_.accountId = ids.front();
}

void Shell::runInteractive() {
  LineEditor editor([this](const std::string& line) { return completeLine(line); });
  for (const std::string& line : history_.load()) editor.remember(line);
  greet();
  StopSignal::outliveInterrupts(
      [this] { context_.console.note("stopping; another Ctrl-C ends kzv without waiting"); });
  while (!state_.isOver && !context_.console.isClosed()) {
    StopSignal::reset();
    if (StopSignal::isRequested()) break;
    followLinkedAccounts();
    std::string line;
    const auto result = editor.readLine(prompt(), line);
    if (result == LineEditor::Result::line) runTypedLine(editor, line);
    if (result == LineEditor::Result::endOfInput) break;
    if (result == LineEditor::Result::endRequested) {
      context_.setStatus(ExitStatus::stopped);
      break;
    }
  }
  StopSignal::outliveInterrupts(nullptr);
  if (StopSignal::isRequested()) context_.setStatus(ExitStatus::stopped);
}

/// Adds the line to the history: on disk only valid commands that cannot contain a secret, since a token or
/// code may have been pasted by mistake.
void Shell::runTypedLine(LineEditor& editor, const std::string& line) {
  const Outcome outcome = runLine(line, "");
  if (outcome.mayContainSecret || line.find_first_not_of(" \t") == std::string::npos) return;
  editor.remember(line);
  if (outcome.isValid && !line.starts_with(' ')) history_.add(line);
}

void Shell::runScript() {
  Script script;
  std::string line;
  for (std::size_t number = 1; !state_.isOver && !context_.console.isClosed() && script.next(line);
       ++number) {
    if (StopSignal::isRequested()) break;
    followLinkedAccounts();
    const ExitStatus status = runLine(line, fmt::format("line {}", number)).status;
    if (status != ExitStatus::done) context_.setStatus(status);
  }
  if (StopSignal::isRequested()) context_.setStatus(ExitStatus::stopped);
}

Shell::Outcome Shell::runLine(const std::string& line, const std::string& place) {
  NSErrorRef error;
  auto words = splitLine(line, &error);
  if (!words) {
    context_.console.error(failureLine("shell", place, *error));
    return {ExitStatus::usage};
  }
  if (!words->empty() && words->front() == "kzv") words->erase(words->begin());  // as on the command line
  if (words->empty()) return {};
  const auto verbs = verbsFor(state_);
  state_.lineVerbs = &verbs;
  GlobalOptions inherited = context_.options;
  inherited.account.reset();  // runCommand() sets the selected one
  const auto parsed = parseCommandLine(*words, verbs, &inherited);
  if (const auto* answer = std::get_if<Answer>(&parsed)) {
    const bool isDone = answer->status == ExitStatus::done;
    isDone ? context_.console.line(answer->text) : context_.console.error(answer->text);
    context_.console.flush();
    return {answer->status, isDone};
  }
  const auto& [options, verb] = std::get<Command>(parsed);
  context_.setSubject(verb->words().name);
  return {runCommand(*verb, options), true, isNamed(*verb, "link")};
}

ExitStatus Shell::runCommand(Verb& verb, const GlobalOptions& lineOptions) {
  GlobalOptions options = lineOptions;
  state_.lineAccountId = state_.accountId;
  if (options.account) state_.lineAccountId = context_.session.chooseAccount(options.account, nullptr);
  if (state_.lineAccountId) options.account = state_.lineAccountId;
  VerbContext context(verb.words().name, options, context_.console, context_.session,
                      state_.currentFolder(state_.lineAccountId));
  if (isNamed(verb, "shell")) {
    context.fail("", hostError(HostErrorCode::badInput, "this is already the shell; exit leaves it"));
  } else {
    runVerb(verb, context);
  }
  return context.status();
}

void Shell::greet() {
  context_.console.note("help lists the commands, Tab completes, Ctrl-D leaves.");
  if (state_.accountId) {
    context_.session.waitForName(*state_.accountId, std::chrono::seconds(2));  // for the prompt
  } else if (context_.session.linkedIds().empty()) {
    context_.console.note("No account is linked; link one with: link");
  } else {
    context_.console.note("Several accounts are linked (see accounts); select one with: account ID-OR-LABEL");
  }
}

std::string Shell::prompt() const {
  if (!state_.accountId) return "kzv> ";
  return fmt::format("{}:{}> ", harmless(context_.session.labelOf(*state_.accountId)),
                     harmless(state_.currentFolder(state_.accountId)));
}

std::optional<Completion> Shell::completeLine(const std::string& line) {
  std::vector<VerbSyntax> syntaxes;
  for (const auto& verb : verbsFor(state_))
    if (!isNamed(*verb, "shell")) syntaxes.push_back(syntaxOf(*verb));
  return complete(line, syntaxes, shellLineSyntax(), [&](ArgumentKind kind, const std::string& folder) {
    std::vector<CompletionName> names;
    if (kind != ArgumentKind::verb) return namesFor(kind, folder);
    for (const VerbSyntax& syntax : syntaxes) names.push_back({syntax.name});
    return names;
  });
}

std::vector<CompletionName> Shell::namesFor(ArgumentKind kind, const std::string& folder) {
  std::vector<CompletionName> names;
  if (kind == ArgumentKind::localPath) return namesInLocalFolder(folder);
  if (kind == ArgumentKind::account) {
    // Labels come from the service and may still be missing right after the start.
    if (const auto ids = context_.session.linkedIds(); !ids.empty())
      context_.session.waitForName(ids.front(), std::chrono::seconds(2));
    for (const std::string& accountId : context_.session.linkedIds()) {
      names.push_back({accountId});
      if (std::string label = context_.session.labelOf(accountId); label != accountId)
        names.push_back({std::move(label)});
    }
    return names;
  }
  const auto path = remotePath(folder, state_.currentFolder(state_.accountId));
  const auto volume =
      path && state_.accountId ? context_.session.openVolume(state_.accountId, nullptr) : nullptr;
  if (!volume) return names;
  names = namesInRemoteFolder(volume, *path);
  if (kind == ArgumentKind::remoteFolder)
    std::erase_if(names, [](const CompletionName& name) { return !name.isFolder; });
  return names;
}

}  // namespace kzv::cli
