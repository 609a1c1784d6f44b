#pragma once
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "core/FSPlugin.h"

namespace kzv::cli {

class VerbContext;

/// Links an account in the browser: opens the sign-in page or prints its address, reads what the person types
/// (Enter: check now; anything else: the code that the page showed), shows that it is waiting, and waits for
/// the end. One at a time per process; on the verb's thread.
class BrowserLinking {
 public:
  struct Options {
    bool opensBrowser = true;
    FSPluginAccounts::LinkingAnswer answer = FSPluginAccounts::LinkingAnswer::byRedirect;
  };

  BrowserLinking(VerbContext& context, FSPluginAccounts& accounts, Options options);
  BrowserLinking(const BrowserLinking&) = delete;
  BrowserLinking& operator=(const BrowserLinking&) = delete;
  ~BrowserLinking();

  /// Waits until the account is linked and returns its id; nothing, after reporting the reason, when that
  /// failed or was stopped. Blocks without a time limit.
  std::optional<std::string> run();

 private:
  class Mailbox;
  struct Event;

  /// Returns true once the linking has ended.
  bool handle(const Event& event);
  void showPage(const std::string& url);
  void handleInput();
  void handleLine(const std::string& line);
  void showWaiting();

  VerbContext& context_;
  FSPluginAccounts& accounts_;
  const Options options_;
  const std::shared_ptr<Mailbox> mailbox_;  // handlers on other threads may still hold it at the end
  const std::chrono::steady_clock::time_point start_;
  std::chrono::seconds lastShown_{0};
  bool hasInput_ = true;
  std::string typed_;  // the unfinished line
  std::optional<std::string> linkedId_;
};

}  // namespace kzv::cli
