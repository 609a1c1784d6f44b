#include "kzv/shell/Shell.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class ShellVerb final : public Verb {
 public:
  Words words() const override {
    return {"shell", "Run commands interactively or from a script: current folder, history, completion",
            "  kzv shell\n"
            "  kzv --account Ada shell < commands.txt\n"
            "A script's exit status is that of its last command that failed, 0 when none did.\n"
            "A line is VERB ARGUMENTS, as after kzv, with quotes and backslashes as in a POSIX shell;\n"
            "# starts a comment. Options before the word shell apply to all lines; a line may have its\n"
            "own --account and --json. Further verbs: account selects an account, cd and pwd its\n"
            "current folder, lcd and lpwd that of this computer; help; exit, quit or Ctrl-D."};
  }
  void declare(VerbArguments& /*arguments*/) override {}
  void run(VerbContext& context) override { Shell(context).run(); }
};

}  // namespace

std::unique_ptr<Verb> makeShellVerb() { return std::make_unique<ShellVerb>(); }

}  // namespace kzv::cli
