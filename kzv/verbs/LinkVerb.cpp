
#include <fmt/format.h>

#include "foundation/Secrets.h"
#include "kzv/BrowserLinking.h"
#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/TokenInput.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class LinkVerb final : public Verb {
 public:
  Words words() const override {
    return {"link", "Link an account: sign in in the browser",
            "  kzv link\n"
            "  kzv link --no-browser        (prints the page's address)\n"
            "  kzv link --type-code         (for a browser on another machine)\n"
            "  kzv link --token-stdin < token.txt"};
  }
  void declare(VerbArguments& arguments) override {
    auto noBrowser = arguments.flag("--no-browser", withoutBrowser_,
                                    "Print the address of the sign-in page instead of opening it");
    auto typeCode =
        arguments.flag("--type-code", typesCode_,
                       "Type in a code that the page shows: for a browser that cannot reach this machine");
    arguments
        .flag("--token-stdin", fromStandardInput_,
              "Read an access token, or a token response as JSON, from standard input")
        .excludes(noBrowser)
        .excludes(typeCode);
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    if (!accounts) return context.fail("", error);
    const auto accountId =
        fromStandardInput_ ? linkWithToken(context, *accounts) : linkInBrowser(context, *accounts);
    if (accountId) report(context, context.session.accountNamed(*accountId));
  }

 private:
  static std::optional<std::string> linkWithToken(VerbContext& context, FSPluginAccounts& accounts) {
    NSErrorRef error;
    auto token = readToken(&error);
    if (token && context.shouldStop("")) return std::nullopt;
    auto accountId = token ? accounts.linkAccountWithToken(*token, &error) : std::nullopt;
    if (token) clearSecret(*token);
    if (!accountId) context.fail("", error);
    return accountId;
  }

  std::optional<std::string> linkInBrowser(VerbContext& context, FSPluginAccounts& accounts) const {
    using Answer = FSPluginAccounts::LinkingAnswer;
    BrowserLinking linking(
        context, accounts,
        {!withoutBrowser_ && !typesCode_, typesCode_ ? Answer::typedIn : Answer::byRedirect});
    return linking.run();
  }

  static void report(VerbContext& context, const Account& account) {
    context.console.line(context.options.json
                             ? jsonLine({{"id", account.id}, {"label", account.label}})
                             : fmt::format("linked {} ({})", harmless(account.label), harmless(account.id)));
  }

  bool withoutBrowser_ = false;
  bool typesCode_ = false;
  bool fromStandardInput_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeLinkVerb() { return std::make_unique<LinkVerb>(); }

}  // namespace kzv::cli
