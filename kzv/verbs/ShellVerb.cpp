#include "kzv/shell/Shell.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class ShellVerb final : public Verb {
 public:
  Words words() const override {
    return {"shell", "Run many commands in one program: current folder, history, completion",
            "  kzv shell\n"
            "  kzv --account Ada shell < commands.txt\n"
            "A script's exit status is that of its last command that failed, 0 when none did.\n"
            "A line is VERB ARGUMENTS, as behind kzv, with quotes and backslashes as in a POSIX shell;\n"
            "# begins a comment. Options before the word shell hold for all lines; a line may have\n"
            "--account and --json of its own. Relative paths of the account count from its current\n"
            "folder: account, cd, pwd; lcd and lpwd for this computer; help; exit, quit or Ctrl-D."};
  }
  void declare(VerbArguments& /*arguments*/) override {}
  void run(VerbContext& context) override { Shell(context).run(); }
};

}  // namespace

std::unique_ptr<Verb> makeShellVerb() { return std::make_unique<ShellVerb>(); }

}  // namespace kzv::cli
