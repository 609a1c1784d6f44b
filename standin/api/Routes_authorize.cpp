#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

#include <fmt/format.h>

#include "standin/Encoding.h"
#include "standin/api/ApiError.h"
#include "standin/api/Routes.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kMaxFormBytes = 65536;
constexpr std::int64_t kTicketSeconds = 1800;
constexpr std::size_t kMaxTickets = 10000;
constexpr std::size_t kMaxStateBytes = 500;

using Fields = std::map<std::string, std::string>;

std::string fieldOr(const Fields& fields, const std::string& name, const std::string& fallback = {}) {
  const auto found = fields.find(name);
  return found == fields.end() ? fallback : found->second;
}

/// An authorization request, from the first display of the page to the decision.
struct SignInRequest {
  Approval approval;
  std::string state;
};

/// Pending authorization requests. The form contains only a ticket, so that a decision can neither be forged
/// by another page nor apply to anything but the displayed request. Thread-safe.
class PendingRequests {
 public:
  std::string add(SignInRequest request, std::int64_t now) {
    std::string ticket = base64UrlEncode(randomBytes(24));
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto old = pending_.begin(); old != pending_.end();) {
      old = old->second.expires < now ? pending_.erase(old) : std::next(old);
    }
    if (pending_.size() >= kMaxTickets) pending_.erase(pending_.begin());
    pending_[ticket] = {std::move(request), now + kTicketSeconds};
    return ticket;
  }

  /// Absent when it is unknown or expired. It stays pending, since the form may be filled in wrongly.
  std::optional<SignInRequest> find(const std::string& ticket, std::int64_t now) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = pending_.find(ticket);
    if (found == pending_.end() || found->second.expires < now) return std::nullopt;
    return found->second.request;
  }

  void drop(const std::string& ticket) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pending_.erase(ticket);
  }

 private:
  struct Pending {
    SignInRequest request;
    std::int64_t expires = 0;
  };
  std::mutex mutex_;
  std::map<std::string, Pending> pending_;  // guarded by mutex_
};

// --- Pages

constexpr const char* kStyle =
    ":root{color-scheme:light dark;--text:#1b1b1b;--ground:#fff;--edge:#767676;--accent:#0a4bbd;"
    "--on-accent:#fff;--error:#a30000;--code:#f0f0f0}"
    "@media(prefers-color-scheme:dark){:root{--text:#ececec;--ground:#1c1d20;--edge:#8d9299;"
    "--accent:#8ab4ff;--on-accent:#10131a;--error:#ff9c94;--code:#2b2d31}}"
    "body{font:1rem/1.5 system-ui,sans-serif;max-width:34rem;margin:3rem auto;padding:0 1rem;"
    "color:var(--text);background:var(--ground)}h1{font-size:1.4rem}"
    "fieldset{border:1px solid var(--edge);border-radius:.4rem;margin:1rem 0;padding:.5rem 1rem}"
    "label{display:block;margin:.5rem 0}input[type=text],input[type=email]{width:100%;padding:.4rem;"
    "font:inherit;box-sizing:border-box}"
    "button{font:inherit;padding:.5rem 1.5rem;margin:0 1rem .5rem 0;border-radius:.4rem;"
    "border:1px solid var(--accent);cursor:pointer}"
    "button.allow{background:var(--accent);color:var(--on-accent)}"
    "button.cancel{background:var(--ground);color:var(--accent)}"
    ".error{color:var(--error);font-weight:600}"
    "code{font-size:1rem;word-break:break-all;background:var(--code);padding:.3rem .5rem;display:block}";

HttpResponse htmlPage(int status, const std::string& title, const std::string& content) {
  HttpResponse response;
  response.status = status;
  response.contentType = "text/html; charset=utf-8";
  response.body = fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width, "
      "initial-scale=1\"><title>{}</title><style>{}</style></head>"
      "\n<body><main><h1>{}</h1>\n{}\n</main></body></html>\n",
      htmlEscape(title), kStyle, htmlEscape(title), content);
  response.headers = {{"Cache-Control", "no-store"},
                      {"Referrer-Policy", "no-referrer"},
                      {"X-Frame-Options", "DENY"},
                      {"Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'"}};
  return response;
}

HttpResponse errorPage(const std::string& problem) {
  return htmlPage(400, "The sign-in cannot continue",
                  "<p class=\"error\" role=\"alert\">" + htmlEscape(problem) +
                      "</p>\n<p>Go back to the application and try again.</p>");
}

std::string describeScope(std::string_view scope) {
  if (scope == "account_info.read") return "see your name, e-mail address and used space";
  if (scope == "files.metadata.read") return "see names and properties of your files and folders";
  if (scope == "files.content.read") return "read the content of your files";
  if (scope == "files.content.write") return "change, move and delete your files and folders";
  if (scope == "sharing.read") return "see your shared links";
  if (scope == "sharing.write") return "create shared links";
  return std::string(scope);
}

std::string scopeList(std::string_view scopes) {
  std::string list = "<ul>";
  while (!scopes.empty()) {
    const auto end = std::min(scopes.find(' '), scopes.size());
    if (end > 0) list += "<li>" + htmlEscape(describeScope(scopes.substr(0, end))) + "</li>";
    scopes.remove_prefix(std::min(end + 1, scopes.size()));
  }
  return list + "</ul>";
}

std::string accountChoice(const std::vector<Account>& accounts) {
  std::string html = "<fieldset><legend>Account</legend>\n";
  for (const Account& account : accounts) {
    html +=
        fmt::format("<label><input type=\"radio\" name=\"account\" value=\"{}\"{}> {} &lt;{}&gt;</label>\n",
                    htmlEscape(account.accountId), &account == &accounts.front() ? " checked" : "",
                    htmlEscape(account.name), htmlEscape(account.email));
  }
  html += fmt::format(
      "<label><input type=\"radio\" name=\"account\" value=\"new\"{}> Another account:</label>\n"
      "<label for=\"name\">Name</label><input type=\"text\" id=\"name\" name=\"name\" "
      "autocomplete=\"name\">\n"
      "<label for=\"email\">E-mail address</label>"
      "<input type=\"email\" id=\"email\" name=\"email\" autocomplete=\"email\">\n</fieldset>\n",
      accounts.empty() ? " checked" : "");
  return html;
}

HttpResponse decisionPage(const ServiceState& state, const SignInRequest& request, const std::string& ticket,
                          const std::string& problem) {
  std::string html;
  if (!problem.empty()) html += "<p class=\"error\" role=\"alert\">" + htmlEscape(problem) + "</p>\n";
  html += fmt::format("<p>The application with the key <strong>{}</strong> asks to be allowed to:</p>\n{}\n",
                      htmlEscape(request.approval.client), scopeList(request.approval.scope));
  html += fmt::format(
      "<form method=\"post\" action=\"/oauth2/authorize\">\n"
      "<input type=\"hidden\" name=\"ticket\" value=\"{}\">\n{}"
      "<button class=\"allow\" type=\"submit\" name=\"decision\" value=\"allow\">Allow</button>"
      "<button class=\"cancel\" type=\"submit\" name=\"decision\" value=\"cancel\">Cancel</button>\n"
      "</form>",
      htmlEscape(ticket), accountChoice(state.accounts.all()));
  return htmlPage(problem.empty() ? 200 : 400, "Allow access to your files?", html);
}

// --- The request

bool isAcceptedRedirect(const std::string& uri) {
  if (uri.find_first_of("\r\n#") != std::string::npos) return false;
  if (uri.compare(0, 8, "https://") == 0) return uri.size() > 8;
  if (uri.compare(0, 7, "http://") != 0) return false;
  const std::string authority = uri.substr(7, uri.find_first_of("/?", 7) - 7);
  if (authority.empty()) return false;
  const std::string host = authority.front() == '[' ? authority.substr(0, authority.find(']') + 1)
                                                    : authority.substr(0, authority.find(':'));
  return host == "localhost" || host == "127.0.0.1" || host == "[::1]";
}

// @return the problem of the request, empty if it is valid.
std::string readSignInRequest(const Fields& query, SignInRequest& request) {
  Approval& approval = request.approval;
  approval.client = fieldOr(query, "client_id");
  approval.redirectUri = fieldOr(query, "redirect_uri");
  request.state = fieldOr(query, "state");
  if (approval.client.empty()) return "The request names no application (client_id).";
  if (!approval.redirectUri.empty() && !isAcceptedRedirect(approval.redirectUri)) {
    return "The address to return to (redirect_uri) is not acceptable: https, or http on this computer.";
  }
  if (fieldOr(query, "response_type") != "code") return "The response_type must be \"code\".";
  if (request.state.size() > kMaxStateBytes) return "The state is longer than 500 bytes.";
  const std::string access = fieldOr(query, "token_access_type", "online");
  if (access != "offline" && access != "online" && access != "legacy") return "Unknown token_access_type.";
  approval.offline = access == "offline";
  const std::string method = fieldOr(query, "code_challenge_method", "plain");
  approval.challenge = fieldOr(query, "code_challenge");
  approval.challengeIsPlain = method == "plain";
  if (method != "S256" && method != "plain") return "Unknown code_challenge_method.";
  if (approval.challenge.empty() && query.count("code_challenge_method") != 0)
    return "The code_challenge is missing.";
  approval.scope = fieldOr(query, "scope");
  if (approval.scope.empty()) approval.scope = Tokens::allScopes();
  for (std::size_t at = 0; at < approval.scope.size();) {
    const auto end = std::min(approval.scope.find(' ', at), approval.scope.size());
    const std::string scope = approval.scope.substr(at, end - at);
    if (!scope.empty() && !hasScope(Tokens::allScopes(), scope)) return "Unknown scope: " + scope;
    at = end + 1;
  }
  return {};
}

// --- The answer

HttpResponse redirect(const SignInRequest& request, std::string parameters) {
  const std::string& uri = request.approval.redirectUri;
  if (!request.state.empty()) parameters += "&state=" + urlEncode(request.state);
  HttpResponse response;
  response.status = 302;
  response.headers = {{"Location", uri + (uri.find('?') == std::string::npos ? "?" : "&") + parameters},
                      {"Cache-Control", "no-store"},
                      {"Referrer-Policy", "no-referrer"}};
  return response;
}

HttpResponse refuse(const SignInRequest& request) {
  if (request.approval.redirectUri.empty()) {
    return htmlPage(200, "Access was not allowed", "<p>Nothing was shared. You can close this page.</p>");
  }
  return redirect(request, "error=access_denied&error_description=" +
                               urlEncode("The user chose not to give your app access."));
}

HttpResponse approve(ServiceState& state, SignInRequest request, const Account& account) {
  request.approval.account = account.id;
  const std::string code = state.tokens.issueCode(request.approval);
  if (!request.approval.redirectUri.empty()) return redirect(request, "code=" + urlEncode(code));
  return htmlPage(
      200, "Access allowed",
      "<p>Copy this code into the application:</p>\n<code id=\"code\">" + htmlEscape(code) + "</code>");
}

std::optional<Account> accountForAutomaticApproval(const ServiceState& state) {
  const std::string email = state.settings.approveAs();
  if (!email.empty()) return state.accounts.byEmail(email);
  const auto accounts = state.accounts.all();
  if (accounts.empty()) return std::nullopt;
  return accounts.front();
}

void showPage(ServiceState& state, PendingRequests& pending, HttpRequest& request, HttpResponse& response,
              const NoteArgument& note) {
  const Fields query = formDecode(request.query);
  note(redactedFields(query, {"client_id", "response_type", "redirect_uri", "token_access_type", "scope"}));
  SignInRequest signIn;
  const std::string problem = readSignInRequest(query, signIn);
  if (!problem.empty()) {
    response = errorPage(problem);
    return;
  }
  switch (state.settings.approve()) {
    case ApproveMode::deny:
      response = refuse(signIn);
      return;
    case ApproveMode::automatic: {
      const auto account = accountForAutomaticApproval(state);
      response =
          account ? approve(state, signIn, *account) : errorPage("There is no account to sign in with.");
      return;
    }
    case ApproveMode::page:
      break;
  }
  response = decisionPage(state, signIn, pending.add(signIn, state.clock.now()), "");
}

std::optional<Account> chosenAccount(ServiceState& state, const Fields& form, std::string& problem) {
  const std::string choice = fieldOr(form, "account");
  if (choice != "new") {
    for (const Account& account : state.accounts.all()) {
      if (account.accountId == choice) return account;
    }
    problem = "Choose an account.";
    return std::nullopt;
  }
  const std::string email = fieldOr(form, "email");
  const std::string name = fieldOr(form, "name");
  const auto at = email.find('@');
  if (at == std::string::npos || at == 0 || at + 1 == email.size()) {
    problem = "Enter the e-mail address of the other account.";
    return std::nullopt;
  }
  return state.accounts.findOrAdd(name.empty() ? email.substr(0, at) : name, email);
}

void decide(ServiceState& state, PendingRequests& pending, HttpRequest& request, HttpResponse& response,
            const NoteArgument& note) {
  const Fields form = formDecode(readWholeBody(request, kMaxFormBytes));
  note(redactedFields(form, {"decision", "account"}));
  const std::string ticket = fieldOr(form, "ticket");
  const auto signIn = pending.find(ticket, state.clock.now());
  if (!signIn) {
    response = errorPage("This page has expired or was already answered.");
    return;
  }
  if (fieldOr(form, "decision") != "allow") {
    pending.drop(ticket);
    response = refuse(*signIn);
    return;
  }
  std::string problem;
  const auto account = chosenAccount(state, form, problem);
  if (!account) {
    response = decisionPage(state, *signIn, ticket, problem);
    return;
  }
  pending.drop(ticket);
  response = approve(state, *signIn, *account);
}

}  // namespace

void addAuthorizePage(RouteTable& table, ServiceState& state) {
  const auto pending = std::make_shared<PendingRequests>();
  table.plain["GET /oauth2/authorize"] = [&state, pending](HttpRequest& request, HttpResponse& response,
                                                           const NoteArgument& note) {
    showPage(state, *pending, request, response, note);
  };
  table.plain["POST /oauth2/authorize"] = [&state, pending](HttpRequest& request, HttpResponse& response,
                                                            const NoteArgument& note) {
    decide(state, *pending, request, response, note);
  };
}

}  // namespace kzv::standin
