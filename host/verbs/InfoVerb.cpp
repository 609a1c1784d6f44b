#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "foundation/NSByteCountFormatter.h"
#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostError.h"
#include "host/HostSession.h"
#include "host/verbs/Verbs.h"

namespace {

class InfoVerb final : public Verb {
 public:
  Words words() const override {
    return {"info", "Show whose account it is and how much space it has",
            "  kzv info\n  kzv --json info dbid:AAB4x"};
  }
  void declare(CLI::App& command) override {
    command.add_option("ID", wanted_, "The account, by id or label (default: as --account says)");
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    if (!accounts) return context.fail("", error);
    const auto accountId = context.session.chooseAccount(wanted_ ? wanted_ : context.options.account, &error);
    if (!accountId) return context.fail(wanted_.value_or(""), error);
    const auto details = accounts->accountDetails(*accountId, &error);
    if (!details) return context.fail(*accountId, error ? error : unlinkedError(*accountId));
    context.options.json ? showJson(context, *details) : showText(context, *details);
  }

 private:
  static void showJson(VerbContext& context, const AccountDetails& details) {
    boost::json::object object{{"id", validUtf8(details.accountId)}};
    if (!details.email.empty()) object["email"] = validUtf8(details.email);
    if (!details.name.empty()) object["name"] = validUtf8(details.name);
    object["free"] = details.space.freeBytes;
    object["total"] = details.space.totalBytes;
    context.console.line(boost::json::serialize(object));
  }

  static void showText(VerbContext& context, const AccountDetails& details) {
    const auto line = [&](const char* name, const std::string& text) {
      if (!text.empty()) context.console.line(fmt::format("{:<6} {}", name, harmless(text)));
    };
    line("id", details.accountId);
    line("email", details.email);
    line("name", details.name);
    line("free", stringFromByteCount(details.space.freeBytes));
    line("total", stringFromByteCount(details.space.totalBytes));
  }

  std::optional<std::string> wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeInfoVerb() { return std::make_unique<InfoVerb>(); }
