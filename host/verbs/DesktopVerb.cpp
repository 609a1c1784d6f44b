#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostSession.h"
#include "host/verbs/Verbs.h"

namespace {

class DesktopVerb final : public Verb {
 public:
  Words words() const override {
    return {"desktop", "Show the desktop client's folder and account",
            "  kzv desktop\n  kzv desktop --set dbid:AAB4x"};
  }
  void declare(CLI::App& command) override {
    command
        .add_option("--set", wanted_, "Record this account (by id or label) as the desktop client's first")
        ->option_text("ID");
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    if (!accounts) return context.fail("", error);
    if (!wanted_.empty()) {
      const auto accountId = context.session.chooseAccount(wanted_, &error);
      if (!accountId) return context.fail(wanted_, error);
      if (!accounts->setDesktopAccountId(*accountId, &error)) return context.fail(wanted_, error);
    }
    report(context, accounts->desktopFolder(), accounts->desktopAccountId());
  }

 private:
  static void report(VerbContext& context, const std::optional<std::string>& folder,
                     const std::optional<std::string>& accountId) {
    if (context.options.json) {
      boost::json::object object;
      if (folder) object["path"] = validUtf8(*folder);
      if (accountId) object["id"] = validUtf8(*accountId);
      return context.console.line(boost::json::serialize(object));
    }
    context.console.line(fmt::format("folder   {}", folder ? harmless(*folder) : "unknown"));
    context.console.line(fmt::format("account  {}", accountId ? harmless(*accountId) : "unknown"));
  }

  std::string wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeDesktopVerb() { return std::make_unique<DesktopVerb>(); }
