#include <map>

#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/HostSession.h"
#include "kzv/JsonLine.h"
#include "kzv/verbs/Verbs.h"

namespace kzv::cli {

namespace {

class ShareVerb final : public Verb {
 public:
  Words words() const override {
    return {"share", "Show the public link to an item of the desktop client's account; creates one if needed",
            "  kzv share /Documents/report.pdf"};
  }
  void declare(VerbArguments& arguments) override {
    arguments.value("PATH", typed_, "A file or folder of the desktop client's account").required();
  }

  void run(VerbContext& context) override {
    NSErrorRef error;
    FSPluginAccounts* accounts = context.session.accountsInterface(&error);
    if (!accounts) return context.fail("", error);
    const std::string path = context.pathFrom(typed_);
    if (path.empty()) return;
    const auto link = accounts->publicLink(path, &error);
    if (!link) return context.fail(path, error ? error : noDesktopAccountError());
    context.options.json ? showJson(context, *link) : showText(context, *link);
  }

 private:
  static void showJson(VerbContext& context, const PublicLink& link) {
    std::vector<JsonField> fields{{"url", link.url}};
    if (!link.audience.empty()) fields.push_back({"audience", link.audience});
    context.console.line(jsonLine(fields));
  }

  static void showText(VerbContext& context, const PublicLink& link) {
    context.console.line(harmless(link.url));
    if (link.audience == "public") return;
    context.console.flush();
    context.console.note(link.audience.empty()
                             ? "the service does not say who can open this link"
                             : "this link is not for everybody: " + audience(link.audience));
  }

  /// The service's name of an audience as a sentence; unknown names unchanged.
  static std::string audience(const std::string& word) {
    static const std::map<std::string, std::string> sentences{
        {"team_only", "only members of the team can open it"},
        {"team", "only members of the team can open it"},
        {"password", "it asks for a password"},
        {"team_and_password", "only members of the team can open it, and it asks for a password"},
        {"shared_folder_only", "only members of the shared folder can open it"},
        {"members", "only those who have access to the item can open it"},
        {"no_one", "only those who have access to the item can open it"},
        {"only_you", "only you can open it"},
    };
    const auto known = sentences.find(word);
    return known != sentences.end() ? known->second : harmless(word);
  }

  static NSErrorRef noDesktopAccountError() {
    return hostError(HostErrorCode::noAccount,
                     "links are made in the desktop client's account, which is unknown; set it with: kzv "
                     "desktop --set ID");
  }

  std::string typed_;
};

}  // namespace

std::unique_ptr<Verb> makeShareVerb() { return std::make_unique<ShareVerb>(); }

}  // namespace kzv::cli
