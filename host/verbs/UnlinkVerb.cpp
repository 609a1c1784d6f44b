#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostSession.h"
#include "host/verbs/MountStatus.h"
#include "host/verbs/Verbs.h"

namespace {

class UnlinkVerb final : public Verb {
 public:
  Words words() const override {
    return {"unlink", "Forget an account and end its authorization at the service",
            "  kzv unlink dbid:AAB4x"};
  }
  void declare(CLI::App& command) override {
    command.add_option("ID", wanted_, "The account's id (see kzv accounts) or label")->required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    const auto accountId = accounts ? context.session.chooseAccount(wanted_, &error) : std::nullopt;
    if (!accountId) return context.fail(wanted_, error);
    const bool isRevoked = accounts->unlinkAccount(*accountId, &error);
    context.session.noteUnlink();
    noteUnsent(context, *accountId);
    if (!isRevoked) return context.fail(wanted_, error);
    if (!context.options.json) context.console.line(fmt::format("unlinked {}", harmless(*accountId)));
  }

 private:
  /// What was written through a mount and never reached the account is not lost with it.
  static void noteUnsent(VerbContext& context, const std::string& accountId) {
    const auto state = UploadJournal::stateOf(accountId);
    if (state.waiting.empty()) return;
    context.console.note(fmt::format(
        "{} of this account {} never sent and {} kept in {}; a mount sends {} once the account is "
        "linked again",
        fileCount(state.waiting.size()), state.waiting.size() == 1 ? "was" : "were",
        state.waiting.size() == 1 ? "is" : "are", harmless(state.folder),
        state.waiting.size() == 1 ? "it" : "them"));
  }

  std::string wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeUnlinkVerb() { return std::make_unique<UnlinkVerb>(); }
