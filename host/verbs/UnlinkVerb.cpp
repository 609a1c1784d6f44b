#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostSession.h"
#include "host/verbs/Verbs.h"

namespace {

class UnlinkVerb final : public Verb {
 public:
  Words words() const override {
    return {"unlink", "Forget an account and revoke its token", "  kzv unlink dbid:AAB4x"};
  }
  void declare(CLI::App& command) override {
    command.add_option("ID", wanted_, "The account's id (see kzv accounts) or label")->required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    const auto accountId = accounts ? context.session.chooseAccount(wanted_, &error) : std::nullopt;
    if (!accountId) return context.fail(wanted_, error);
    accounts->unlinkAccount(*accountId);
    context.session.noteUnlink();
    if (!context.options.json) context.console.line(fmt::format("unlinked {}", harmless(*accountId)));
  }

 private:
  std::string wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeUnlinkVerb() { return std::make_unique<UnlinkVerb>(); }
