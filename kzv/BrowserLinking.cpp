#include "kzv/BrowserLinking.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "core/KZVConstants.h"
#include "foundation/DispatchQueue.h"
#include "foundation/NSApplication.h"
#include "foundation/NSNotificationCenter.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/NSWorkspace.h"
#include "kzv/Console.h"
#include "kzv/Formatting.h"
#include "kzv/HostError.h"
#include "kzv/Verb.h"

namespace kzv::cli {

using namespace std::chrono_literals;

namespace {

/// Shorter than the grace period after a stop signal (StopSignal).
constexpr int tickMilliseconds = 100;
constexpr std::size_t longestLineBytes = 4096;
/// How often a "still waiting" line is printed where a progress line is not possible.
constexpr std::chrono::seconds waitingInterval = 30s;

/// A background job must not read the terminal: the system would suspend it.
bool mayRead() { return ::isatty(STDIN_FILENO) != 1 || ::tcgetpgrp(STDIN_FILENO) == ::getpgrp(); }

void postActivation() {
  DispatchQueue::main().async([] {
    NSNotification notification;
    notification.name = NSApplicationDidBecomeActiveNotification;
    NSNotificationCenter::defaultCenter().post(notification);
  });
}

}  // namespace

/// A page to show, or a step of the linking.
struct BrowserLinking::Event {
  std::optional<std::string> page;
  std::optional<std::string> accountId;
  NSErrorRef error;
  bool shouldContinue = true;
};

/// A queue of events from the plug-in's threads to the verb's.
class BrowserLinking::Mailbox {
 public:
  Mailbox() : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;
  ~Mailbox() { ::close(wakeUp_); }

  void put(Event event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(wakeUp_, &one, sizeof one);
  }

  std::deque<Event> takeAll() {
    const std::lock_guard lock(mutex_);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = ::read(wakeUp_, &count, sizeof count);
    return std::exchange(events_, {});
  }

  /// Readable while there is an event.
  int wakeUp() const noexcept { return wakeUp_; }

 private:
  const int wakeUp_;
  std::mutex mutex_;
  std::deque<Event> events_;  // guarded by mutex_
};

BrowserLinking::BrowserLinking(VerbContext& context, FSPluginAccounts& accounts, Options options)
    : context_(context),
      accounts_(accounts),
      options_(options),
      mailbox_(std::make_shared<Mailbox>()),
      start_(std::chrono::steady_clock::now()) {
  NSWorkspace::sharedWorkspace().setOpener([mailbox = mailbox_](const std::string& url) {
    Event event;
    event.page = url;
    mailbox->put(std::move(event));
    return true;
  });
  NSNotificationCenter::defaultCenter().addObserver(
      this, KZVAccountLinkingNotification, nullptr, [mailbox = mailbox_](const NSNotification& step) {
        Event event;
        if (!step.userInfo) return;
        event.error = as<NSError>(step.userInfo->objectForKey(KZVLinkingErrorKey));
        const id accountId = step.userInfo->objectForKey(KZVLinkingAccountKey);
        if (const std::string* text = textOf(accountId)) event.accountId = *text;
        const auto shouldContinue = as<NSNumber>(step.userInfo->objectForKey(KZVLinkingShouldContinueKey));
        event.shouldContinue = shouldContinue && shouldContinue->boolValue();
        mailbox->put(std::move(event));
      });
}

BrowserLinking::~BrowserLinking() {
  NSNotificationCenter::defaultCenter().removeObserver(this);
  NSWorkspace::sharedWorkspace().setOpener(nullptr);
  accounts_.cancelLinking();  // otherwise the account could still be linked after this command has failed
}

std::optional<std::string> BrowserLinking::run() {
  if (!accounts_.linkAccount(options_.answer)) {
    context_.fail("",
                  hostError(HostErrorCode::notSupported, "this plug-in links no accounts in the browser"));
    return std::nullopt;
  }
  while (!context_.shouldStop("")) {
    const bool reads = hasInput_ && mayRead();
    std::array<pollfd, 2> waits{pollfd{mailbox_->wakeUp(), POLLIN, 0},
                                pollfd{reads ? STDIN_FILENO : -1, POLLIN, 0}};
    ::poll(waits.data(), waits.size(), tickMilliseconds);
    for (const Event& event : mailbox_->takeAll()) {
      if (!handle(event)) continue;
      context_.console.progress("");
      return linkedId_;
    }
    if (waits[1].revents != 0) handleInput();
    showWaiting();
  }
  return std::nullopt;
}

bool BrowserLinking::handle(const Event& event) {
  if (event.page) showPage(*event.page);
  linkedId_ = event.accountId;
  if (linkedId_) return true;
  if (!event.error) return false;
  // With Enter the person can retry.
  if (!event.shouldContinue || !hasInput_) {
    context_.fail("", event.error);
    return true;
  }
  context_.console.note(fmt::format("not linked yet: {}; press Enter to try again",
                                    harmless(event.error->localizedDescription())));
  return false;
}

void BrowserLinking::showPage(const std::string& url) {
  Console& console = context_.console;
  if (options_.opensBrowser && NSWorkspace::openWithDesktop(url)) {
    console.note("The sign-in page opens in the browser: allow the access there.");
  } else {
    console.note(options_.opensBrowser
                     ? "No browser could be started. Open this page in one and allow the access:"
                     : "Open this page in a browser and allow the access:");
    // The address is a result, but not one of the JSON objects that a script expects.
    context_.options.json ? console.error(url) : console.line(url);
    console.flush();
  }
  console.note("If the page shows a code, type it here. Enter tries at once, Ctrl-C stops.");
}

void BrowserLinking::handleInput() {
  std::array<char, 1024> bytes{};
  const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (count <= 0) {
    hasInput_ = false;
    return;
  }
  typed_.append(bytes.data(), static_cast<std::size_t>(count));
  for (auto end = typed_.find('\n'); end != std::string::npos; end = typed_.find('\n')) {
    handleLine(typed_.substr(0, end));
    typed_.erase(0, end + 1);
  }
  if (typed_.size() > longestLineBytes) typed_.clear();  // longer than any code
}

void BrowserLinking::handleLine(const std::string& line) {
  const bool isEnter = line.find_first_not_of(" \t\r") == std::string::npos;
  if (isEnter || accounts_.useAuthorizationCode(line)) return postActivation();
  context_.console.note("That cannot be the code; copy it whole from the page.");
}

void BrowserLinking::showWaiting() {
  const auto waited =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
  const bool showsLine = context_.console.showsProgress();
  if (waited - lastShown_ < (showsLine ? 1s : waitingInterval)) return;
  lastShown_ = waited;
  const std::string text = fmt::format("waiting for the sign-in, {}", duration(waited));
  showsLine ? context_.console.progress(text) : context_.console.note(text);
}

}  // namespace kzv::cli
