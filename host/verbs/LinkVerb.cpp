#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostSession.h"
#include "host/TokenInput.h"
#include "host/verbs/Verbs.h"

namespace {

class LinkVerb final : public Verb {
 public:
  Words words() const override {
    return {"link", "Link an account",
            "  kzv link --token-stdin < token.txt\n  kzv link --token-stdin      (asks, without showing it)"};
  }
  void declare(CLI::App& command) override {
    command
        .add_flag("--token-stdin", fromStandardInput_,
                  "Read an access token, or a token answer as JSON, from standard input")
        ->required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    const auto token = accounts ? readToken(&error) : std::nullopt;
    if (!token || context.shouldStop("")) return token ? void() : context.fail("", error);
    const auto accountId = accounts->linkAccountWithToken(*token, &error);
    if (!accountId) return context.fail("", error);
    report(context, context.session.accountNamed(*accountId));
  }

 private:
  static void report(VerbContext& context, const Account& account) {
    context.console.line(context.options.json
                             ? boost::json::serialize(boost::json::object{
                                   {"id", validUtf8(account.id)}, {"label", validUtf8(account.label)}})
                             : fmt::format("linked {} ({})", harmless(account.label), harmless(account.id)));
  }

  bool fromStandardInput_ = false;
};

}  // namespace

std::unique_ptr<Verb> makeLinkVerb() { return std::make_unique<LinkVerb>(); }
