
#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostSession.h"
#include "kzv/verbs/MountStatus.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class UnlinkVerb final : public Verb {
 public:
  Words words() const override {
    return {"unlink", "Forget an account and end its authorization at the service",
            "  kzv unlink dbid:AAB4x"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("ID", wanted_, "The account's id (see kzv accounts) or label").required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    const auto accountId = accounts ? context.session.chooseAccount(wanted_, &error) : std::nullopt;
    if (!accountId) return context.fail(wanted_, error);
    const bool isRevoked = accounts->unlinkAccount(*accountId, &error);
    context.session.noteUnlink();
    notePending(context, *accountId);
    if (!isRevoked) return context.fail(wanted_, error);
    if (!context.options.json) context.console.line(fmt::format("unlinked {}", harmless(*accountId)));
  }

 private:
  /// Reports pending uploads of a mount, which are kept.
  static void notePending(VerbContext& context, const std::string& accountId) {
    const auto state = kzv::mount::UploadJournal::stateOf(accountId);
    if (state.waiting.empty()) return;
    context.console.note(fmt::format(
        "{} of this account {} never uploaded and {} kept in {}; a mount uploads {} once the account is "
        "linked again",
        fileCount(state.waiting.size()), state.waiting.size() == 1 ? "was" : "were",
        state.waiting.size() == 1 ? "is" : "are", harmless(state.folder),
        state.waiting.size() == 1 ? "it" : "them"));
  }

  std::string wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeUnlinkVerb() { return std::make_unique<UnlinkVerb>(); }

}  // namespace kzv::cli
