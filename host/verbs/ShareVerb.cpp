#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include "host/Console.h"
#include "host/Formatting.h"
#include "host/HostError.h"
#include "host/HostSession.h"
#include "host/verbs/Verbs.h"

namespace {

class ShareVerb final : public Verb {
 public:
  Words words() const override {
    return {"share", "Make a public link to a file of the desktop client's account (see kzv desktop)",
            "  kzv share /Documents/report.pdf"};
  }
  void declare(CLI::App& command) override {
    command.add_option("PATH", typed_, "A file or folder of the desktop client's account")->required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    if (!accounts) return context.fail("", error);
    const std::string path = context.pathFrom(typed_);
    if (path.empty()) return;
    const auto link = accounts->publicLink(path, &error);
    if (!link) return context.fail(path, error ? error : noDesktopAccountError());
    context.console.line(context.options.json
                             ? boost::json::serialize(boost::json::object{{"url", validUtf8(*link)}})
                             : harmless(*link));
  }

 private:
  static NSErrorRef noDesktopAccountError() {
    return hostError(HostErrorCode::noAccount,
                     "no account is recorded as the desktop client's; kzv desktop --set does");
  }

  std::string typed_;
};

}  // namespace

std::unique_ptr<Verb> makeShareVerb() { return std::make_unique<ShareVerb>(); }
