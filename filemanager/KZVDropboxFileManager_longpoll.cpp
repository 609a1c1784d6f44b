// The long poll of an account that is watched: what carries out LongPoll's decisions. All of it on
// dropboxThread(), where it costs a transfer of the network thread and no thread of its own.
#include <algorithm>
#include <random>
#include <utility>

#include "filemanager/KZVDropboxFileManager.h"
#include "filemanager/LongPoll.h"
#include "foundation/Fatal.h"
#include "foundation/NSNumber.h"
#include "foundation/NSRunLoop.h"
#include "sdk/DBError.h"
#include "support/KZVDropboxFSSupport.h"

class KZVDropboxFileManager::ChangeWatcher final : public std::enable_shared_from_this<ChangeWatcher>,
                                                   private LongPoll::Environment,
                                                   private DBRestClientDelegate {
 public:
  /// @param manager  owns this object.
  explicit ChangeWatcher(KZVDropboxFileManager& manager)
      : manager_(manager),
        client_(std::make_shared<DBRestClient>(
            required(DBSession::sharedSession(), "a shared session is installed"), manager.userId)) {
    client_->setDelegate(this);
  }
  ChangeWatcher(const ChangeWatcher&) = delete;
  ChangeWatcher& operator=(const ChangeWatcher&) = delete;
  ~ChangeWatcher() override {
    client_->setDelegate(nullptr);
    client_->cancelAllRequests();
  }

  LongPoll& longPoll() noexcept { return longPoll_; }

 private:
  void wait(const std::string& cursor, std::chrono::seconds limit) override {
    client_->waitForChanges(cursor, limit);
  }
  void cancelWait() override { client_->cancelAllRequests(); }
  void poll() override { manager_.pollNow(); }
  void startPause(LongPoll::Clock::duration pause) override {
    const auto ended = [weak = weak_from_this(), number = ++lastPause_](NSTimer& /*timer*/) {
      const auto self = weak.lock();
      if (self && self->lastPause_ == number) self->longPoll_.pauseEnded();
    };
    NSRunLoop::currentRunLoop()->addTimer(std::make_shared<NSTimer>(pause, ended, false));
  }
  LongPoll::Clock::time_point now() const override { return LongPoll::Clock::now(); }
  double randomFraction() override { return std::uniform_real_distribution<double>(0, 1)(random_); }

  void waitedForChanges(DBRestClient& /*client*/, bool changes, std::chrono::seconds backoff) override {
    longPoll_.answered(changes, backoff);
  }
  void waitForChangesFailedWithError(DBRestClient& /*client*/, const NSErrorRef& error) override {
    constexpr std::int64_t longestAsked = 3600;
    const auto asked = as<NSNumber>(error->detail(DBErrorRetryAfterKey));
    const auto seconds = asked ? std::clamp<std::int64_t>(asked->int64Value(), 0, longestAsked) : 0;
    longPoll_.failed(std::chrono::seconds(seconds));
  }

  KZVDropboxFileManager& manager_;
  const std::shared_ptr<DBRestClient> client_;
  std::uint64_t lastPause_ = 0;
  std::minstd_rand random_{std::random_device{}()};
  LongPoll longPoll_{*this};
};

void KZVDropboxFileManager::onServiceThread(std::function<void(KZVDropboxFileManager&)> step) {
  KZVDropboxFSSupport::performBlockInBackground(
      [weak = weak_from_this(), step = std::move(step)] {
        if (const auto self = weak.lock()) step(*self);
      },
      *required(dropboxThread(), "the service thread runs"));
}

void KZVDropboxFileManager::setWatched(bool isWatched) {
  if (!isLongPollEnabled()) return;
  onServiceThread([isWatched](KZVDropboxFileManager& self) {
    if (!self.changeWatcher_) {
      if (!isWatched) return;
      self.changeWatcher_ = std::make_shared<ChangeWatcher>(self);
      if (const auto cursor = self.deltaCursor()) self.changeWatcher_->longPoll().polled(*cursor, false);
    }
    self.changeWatcher_->longPoll().setWatched(isWatched);
  });
}

void KZVDropboxFileManager::noteConnectionInterrupted() {
  onServiceThread([](KZVDropboxFileManager& self) {
    if (self.changeWatcher_) self.changeWatcher_->longPoll().restart();
  });
}

void KZVDropboxFileManager::notifyLongPoll(const std::optional<std::string>& cursor) {
  const bool broughtChanges = std::exchange(hasRunBroughtChanges_, false);
  if (!changeWatcher_) return;
  if (cursor) {
    changeWatcher_->longPoll().polled(*cursor, broughtChanges);
  } else {
    changeWatcher_->longPoll().pollFailed();
  }
}
