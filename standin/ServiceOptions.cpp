#include "standin/ServiceOptions.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <map>

namespace kzv::standin {
namespace {

bool parseAddress(const std::string& text, ServiceOptions& options) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  options.host = text.substr(0, colon);
  if (options.host.size() > 2 && options.host.front() == '[' && options.host.back() == ']') {
    options.host = options.host.substr(1, options.host.size() - 2);
  }
  const char* end = text.data() + text.size();
  const auto read = std::from_chars(text.data() + colon + 1, end, options.port);
  return read.ec == std::errc() && read.ptr == end && options.port >= 0 && options.port <= 65535;
}

// NAME:EMAIL:TOKEN; the token may contain colons.
bool parseAccount(const std::string& text, ServiceOptions& options) {
  const auto first = text.find(':');
  const auto second = first == std::string::npos ? first : text.find(':', first + 1);
  if (second == std::string::npos) return false;
  const ReadyAccount account{text.substr(0, first), text.substr(first + 1, second - first - 1),
                             text.substr(second + 1)};
  if (account.name.empty() || account.email.find('@') == std::string::npos || account.token.empty())
    return false;
  options.accounts.push_back(account);
  return true;
}

CLI::Validator checkedBy(const char* problem, std::function<bool(const std::string&)> parse) {
  return CLI::Validator(
      [=](const std::string& text) { return parse(text) ? std::string() : std::string(problem); }, "");
}

}  // namespace

std::optional<ServiceOptions> parseServiceOptions(int argc, const char* const* argv, int& exitStatus) {
  ServiceOptions options;
  CLI::App app("A local stand-in of the cloud service's HTTP API, version 2.", "kzv-service");
  std::string address = "127.0.0.1:0";
  std::string seed = "none";
  std::string data;
  std::vector<std::string> accounts;
  app.add_option("--listen", address, "where to listen; port 0 chooses a free one")
      ->type_name("HOST:PORT")
      ->capture_default_str()
      ->check(checkedBy("must be HOST:PORT",
                        [&](const std::string& text) { return parseAddress(text, options); }));
  app.add_option("--data", data, "keep state in this folder; without it, in a temporary one")
      ->type_name("DIR");
  app.add_option("--seed", seed, "initial content: sample (one account with a small, varied tree) or none")
      ->check(CLI::IsMember({"sample", "none"}))
      ->capture_default_str();
  app.add_option(
         "--account", accounts,
         "an account with a ready access token, repeatable; for tests only, since a command line is public")
      ->type_name("NAME:EMAIL:TOKEN")
      ->expected(1)
      ->take_all()
      ->check(checkedBy("must be NAME:EMAIL:TOKEN", [](const std::string& text) {
        ServiceOptions ignored;
        return parseAccount(text, ignored);
      }));
  app.add_option("--approve", options.approve,
                 "how sign-ins are decided: page (a page asks), auto or deny (at once)")
      ->transform(CLI::CheckedTransformer(std::map<std::string, ApproveMode>{
          {"page", ApproveMode::page}, {"auto", ApproveMode::automatic}, {"deny", ApproveMode::deny}}));
  app.add_flag("--admin", options.admin, "enable the /admin routes, on loopback only");
  app.add_flag("--strict", options.strict, "refuse malformed requests as strictly as the real service");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitStatus = app.exit(error) == 0 ? 0 : 2;
    return std::nullopt;
  }
  parseAddress(address, options);
  for (const auto& account : accounts) parseAccount(account, options);
  options.dataFolder = data;
  options.seedSample = seed == "sample";
  return options;
}

}  // namespace kzv::standin
