#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "foundation/NSString.h"
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
    const auto summary = accounts->accountSummary(*accountId);
    if (!summary) return context.fail(*accountId, noAnswerError());
    show(context, *summary);
  }

 private:
  static NSErrorRef noAnswerError() {
    return hostError(HostErrorCode::internal, "the account could not be asked");
  }

  static void show(VerbContext& context, const NSDictionary& summary) {
    boost::json::object object;
    for (const char* key : {"id", "email", "name", "free", "total"}) {
      const id value = summary.objectForKey(key);
      const std::string* text = textOf(value);
      if (!text) continue;
      object[key] = validUtf8(*text);
      if (!context.options.json) context.console.line(fmt::format("{:<6} {}", key, harmless(*text)));
    }
    if (context.options.json) context.console.line(boost::json::serialize(object));
  }

  std::optional<std::string> wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeInfoVerb() { return std::make_unique<InfoVerb>(); }
