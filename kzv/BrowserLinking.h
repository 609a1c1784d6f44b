#pragma once
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "core/FSPlugin.h"

namespace kzv::cli {

class VerbContext;

/// Links an account in the browser: opens the page, or prints its address if no browser is to be used, reads
/// what the person types (Enter: "I am back"; anything else: the code that the page showed) and waits for the
/// end, showing that it still waits. One at a time per process; the verb's thread.
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

  /// Waits until an account is linked (its id), refused or stopped (nothing, after having reported it).
  /// Blocks without a time limit.
  std::optional<std::string> run();

 private:
  class Mailbox;
  struct Event;

  /// True when it is over.
  bool handle(const Event& event);
  void showPage(const std::string& url);
  void handleInput();
  void handleLine(const std::string& line);
  void showSignOfLife();

  VerbContext& context_;
  FSPluginAccounts& accounts_;
  const Options options_;
  const std::shared_ptr<Mailbox> mailbox_;  // handlers on other threads may still hold it at the end
  const std::chrono::steady_clock::time_point start_;
  std::chrono::seconds lastSign_{0};
  bool hasInput_ = true;
  std::string typed_;  // of a line that has not ended
  std::optional<std::string> linkedId_;
};

}  // namespace kzv::cli
