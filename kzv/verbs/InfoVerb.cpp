
#include <fmt/format.h>

#include "foundation/NSByteCountFormatter.h"
#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class InfoVerb final : public Verb {
 public:
  Words words() const override {
    return {"info", "Show whose account it is and how much space it has",
            "  kzv info\n  kzv --json info dbid:AAB4x"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("ID", wanted_, "The account, by id or label (default: that of --account)");
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
    std::vector<JsonField> fields{{"id", details.accountId}};
    if (!details.email.empty()) fields.push_back({"email", details.email});
    if (!details.name.empty()) fields.push_back({"name", details.name});
    fields.push_back({"free", details.space.freeBytes});
    fields.push_back({"total", details.space.totalBytes});
    context.console.line(jsonLine(fields));
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

}  // namespace kzv::cli
