// The only file that uses the line-editing library.
#include "kzv/shell/LineEditor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string_view>

#include <fcntl.h>
#include <histedit.h>
#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include "foundation/Unicode.h"
#include "kzv/Console.h"
#include "kzv/shell/PromptSignals.h"

namespace kzv::cli {

namespace {

constexpr int rememberedLines = 1000;
constexpr std::size_t shownChoices = 200;

/// Sets this thread's character encoding to UTF-8 while this lives, as names on the volumes are UTF-8 in any
/// locale.
class Utf8Locale {
 public:
  Utf8Locale() : locale_(::newlocale(LC_CTYPE_MASK, "", nullptr)) {
    if (locale_ && std::strcmp(::nl_langinfo_l(CODESET, locale_), "UTF-8") != 0) {
      ::freelocale(locale_);
      locale_ = nullptr;
    }
    if (!locale_) locale_ = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (locale_) before_ = ::uselocale(locale_);
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;
  ~Utf8Locale() {
    if (!locale_) return;
    ::uselocale(before_);
    ::freelocale(locale_);
  }

 private:
  locale_t locale_;
  locale_t before_ = nullptr;
};

int characterCount(std::string_view text) {
  int count = 0;
  for (std::size_t at = 0; at < text.size(); ++count) nextCodePoint(text, at);
  return count;
}

/// The choices in columns, sorted downwards, as wide as the terminal.
std::string columns(std::vector<std::string> choices) {
  const std::size_t omitted = choices.size() - std::min(choices.size(), shownChoices);
  choices.resize(choices.size() - omitted);
  std::size_t width = 0;
  for (const std::string& choice : choices)
    width = std::max(width, static_cast<std::size_t>(characterCount(choice)) + 2);
  const std::size_t perLine = std::max<std::size_t>(1, Console::progressWidth() / width);
  const std::size_t lines = (choices.size() + perLine - 1) / perLine;
  std::string text = "\n";
  for (std::size_t line = 0; line < lines; ++line) {
    for (std::size_t at = line; at < choices.size(); at += lines) {
      text += choices[at];
      if (at + lines < choices.size())
        text.append(width - static_cast<std::size_t>(characterCount(choices[at])), ' ');
    }
    text += '\n';
  }
  if (omitted > 0) text += "... and " + std::to_string(omitted) + " more\n";
  return text;
}

}  // namespace

struct LineEditor::Library {
  explicit Library(Completer theCompleter)
      : completer(std::move(theCompleter)),
        output(::fdopen(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0), "w")),
        history(::history_init()),
        editor(::el_init("kzv", stdin, output, output)) {
    HistEvent event{};
    ::history(history, &event, H_SETSIZE, rememberedLines);
    ::history(history, &event, H_SETUNIQUE, 1);
    ::el_set(editor, EL_CLIENTDATA, this);
    ::el_set(editor, EL_SIGNAL, 0);
    ::el_set(editor, EL_PROMPT, promptOf);
    ::el_set(editor, EL_HIST, ::history, history);
    ::el_set(editor, EL_EDITOR, "emacs");
    ::el_set(editor, EL_GETCFN, readCharacter);
    ::el_set(editor, EL_ADDFN, "kzv-complete", "Completes the word before the cursor", completeWord);
    ::el_set(editor, EL_BIND, "^I", "kzv-complete", nullptr);
    ::el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    ::el_source(editor, nullptr);  // the person's own key bindings
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    ::el_end(editor);
    ::history_end(history);
    std::fclose(output);
  }

  static Library& of(EditLine* editor) {
    Library* self = nullptr;
    ::el_get(editor, EL_CLIENTDATA, &self);
    return *self;
  }
  static char* promptOf(EditLine* editor) { return of(editor).prompt.data(); }

  /// 1 with a character; 0 at the end of input; -1 when the line ends for another reason.
  static int readCharacter(EditLine* editor, wchar_t* character) {
    Library& self = of(editor);
    std::mbstate_t state{};
    while (true) {
      char byte = 0;
      const int count = self.readByte(&byte);
      if (count <= 0) return count;
      const std::size_t length = std::mbrtowc(character, &byte, 1, &state);
      if (length <= 1) return 1;
      if (length == static_cast<std::size_t>(-1)) state = {};  // invalid UTF-8: ignored
    }
  }

  int readByte(char* byte) {
    while (true) {
      std::array<pollfd, 2> waits{pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{PromptSignals::file(), POLLIN, 0}};
      if (::poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) return -1;
      while (const auto number = PromptSignals::take()) {
        note(*number);
        answer(*number);
      }
      if (result != Result::line) return -1;
      if (waits[0].revents == 0) continue;
      const ssize_t count = ::read(STDIN_FILENO, byte, 1);
      if (count >= 0) return static_cast<int>(count);
      if (errno != EINTR && errno != EAGAIN) return -1;
    }
  }

  void note(int number) {
    if (number == SIGTERM || number == SIGHUP) result = Result::endRequested;
    if (number == SIGINT && result != Result::endRequested) result = Result::interrupted;
  }
  void answer(int number) {
    if (number == SIGWINCH) ::el_resize(editor);
    if (number != SIGCONT) return;
    ::el_set(editor, EL_PREP_TERM, 1);  // another job may have changed the terminal
    ::el_set(editor, EL_REFRESH);
  }

  static unsigned char completeWord(EditLine* editor, int /*key*/) {
    Library& self = of(editor);
    const LineInfo* info = ::el_line(editor);
    const std::string line(info->buffer, info->cursor);
    const auto completion = self.completer(line);
    if (!completion) return CC_ERROR;
    const std::string typed = line.substr(completion->start);
    if (typed != completion->replacement) {
      ::el_deletestr(editor, characterCount(typed));
      if (::el_insertstr(editor, completion->replacement.c_str()) != 0) return CC_ERROR;
    }
    if (completion->choices.empty()) return CC_REFRESH;
    std::fputs(columns(completion->choices).c_str(), self.output);
    return CC_REDISPLAY;
  }

  const Utf8Locale locale;
  const Completer completer;
  FILE* const output;
  ::History* const history;
  EditLine* const editor;
  std::string prompt;
  Result result = Result::line;  // for the line being edited
};

LineEditor::LineEditor(Completer completer) : library_(std::make_unique<Library>(std::move(completer))) {}

LineEditor::~LineEditor() = default;

LineEditor::Result LineEditor::readLine(const std::string& prompt, std::string& line) {
  Library& library = *library_;
  library.prompt = prompt;
  library.result = Result::line;
  int count = 0;
  const char* text = nullptr;
  {
    const PromptSignals signals;
    // Before the prompt is shown; the library does it afterwards, and would lose a Ctrl-D typed in between.
    ::el_set(library.editor, EL_PREP_TERM, 1);
    text = ::el_gets(library.editor, &count);
  }
  if (library.result == Result::line && (!text || count <= 0)) library.result = Result::endOfInput;
  // A Ctrl-C right after the end of the line cancels the line.
  while (const auto number = PromptSignals::take()) library.note(*number);
  if (library.result != Result::line) {
    std::fputs(library.result == Result::interrupted ? "^C\n" : "\n", library.output);
    std::fflush(library.output);
    return library.result;
  }
  line.assign(text, static_cast<std::size_t>(count));
  while (line.ends_with('\n') || line.ends_with('\r')) line.pop_back();
  return Result::line;
}

void LineEditor::remember(const std::string& line) {
  HistEvent event{};
  ::history(library_->history, &event, H_ENTER, line.c_str());
}

}  // namespace kzv::cli
