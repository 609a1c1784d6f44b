#include <algorithm>

#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class AccountsVerb final : public Verb {
 public:
  Words words() const override {
    return {"accounts", "List the linked accounts", "  kzv accounts\n  kzv --json accounts"};
  }
  void declare(VerbArguments& /*arguments*/) override {}

  void run(VerbContext& context) override {
    const auto accounts = context.session.accounts();
    const NSErrorRef unread = context.session.accountsError();
    if (accounts.empty() && !unread) context.console.note("no account is linked; link one with: kzv link");
    std::size_t idWidth = 0;
    for (const Account& account : accounts) idWidth = std::max(idWidth, account.id.size());
    for (const Account& account : accounts)
      context.console.line(context.options.json ? json(account) : plain(account, idWidth));
    if (unread) context.fail("", unread);
  }

 private:
  static std::string json(const Account& account) {
    return jsonLine({{"id", account.id}, {"label", account.label}, {"available", account.isAvailable}});
  }
  static std::string plain(const Account& account, std::size_t idWidth) {
    return fmt::format("{:<{}}  {}{}", harmless(account.id), idWidth, harmless(account.label),
                       account.isAvailable ? "" : "  (not available)");
  }
};

}  // namespace

std::unique_ptr<Verb> makeAccountsVerb() { return std::make_unique<AccountsVerb>(); }

}  // namespace kzv::cli
