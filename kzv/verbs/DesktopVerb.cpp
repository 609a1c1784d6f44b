
#include <fmt/format.h>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class DesktopVerb final : public Verb {
 public:
  Words words() const override {
    return {"desktop", "Show the desktop client's folder and account",
            "  kzv desktop\n  kzv desktop --set dbid:AAB4x"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("--set", wanted_, "Record this account (by id or label) as the desktop client's first")
        .notEmpty()
        .valueName("ID");
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
      std::vector<JsonField> fields;
      if (folder) fields.push_back({"path", *folder});
      if (accountId) fields.push_back({"id", *accountId});
      return context.console.line(jsonLine(fields));
    }
    context.console.line(fmt::format("folder   {}", folder ? harmless(*folder) : "unknown"));
    context.console.line(fmt::format("account  {}", accountId ? harmless(*accountId) : "unknown"));
  }

  std::string wanted_;
};

}  // namespace

std::unique_ptr<Verb> makeDesktopVerb() { return std::make_unique<DesktopVerb>(); }

}  // namespace kzv::cli
