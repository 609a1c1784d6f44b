#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// Decides when to send the request that waits at the service for the account's next change
/// (list_folder/longpoll). Its answer leads to an early poll; it applies no changes itself, and if it fails,
/// the timer still polls.
///
/// One request waits at a time, and only while there is a cursor and the account is watched. Between two
/// requests it pauses for as long as the service asks (`backoff`), and longer after failures and wake-ups
/// without changes. Pauses are randomised, so that many clients do not return together.
///
/// Threads: none of its own and no locks; all members run on one thread, on which its Environment calls back.
class LongPoll {
 public:
  using Clock = std::chrono::steady_clock;

  /// What it acts through.
  class Environment {
   public:
    virtual ~Environment() = default;
    /// Sends the request that waits; answered() or failed() follows, unless it is cancelled before.
    /// @param limit  how long the service may let it wait when nothing changes, but for some time by chance.
    virtual void wait(const std::string& cursor, std::chrono::seconds limit) = 0;
    virtual void cancelWait() = 0;
    /// Asks for the changes in the background; polled() or pollFailed() follows.
    virtual void poll() = 0;
    /// Calls pauseEnded() after `pause`. A pause begun later replaces it.
    virtual void startPause(Clock::duration pause) = 0;
    virtual Clock::time_point now() const = 0;
    /// 0 to 1.
    virtual double randomFraction() = 0;
  };

  /// @param line  must outlive this object.
  explicit LongPoll(Environment& environment) : environment_(environment) {}
  LongPoll(const LongPoll&) = delete;
  LongPoll& operator=(const LongPoll&) = delete;

  /// Whether anyone watches the account.
  void setWatched(bool isWatched);
  /// The connection was interrupted (the machine slept or changed networks): the waiting request may never be
  /// answered, and earlier failures no longer count.
  void restart();

  /// Any poll has ended, also one of the timer.
  /// @param broughtChanges  whether there were changes since the previous cursor.
  void polled(const std::string& cursor, bool broughtChanges);
  void pollFailed();

  // Called by the environment.
  void answered(bool changes, std::chrono::seconds backoff);
  /// @param retryAfter  the pause that the service asks for.
  void failed(std::chrono::seconds retryAfter);
  void pauseEnded();

 private:
  enum class State {
    off,      // not watched, or without a cursor
    waiting,  // at the service
    polling,  // until the poll that it asked for has ended
    pausing
  };
  void begin();
  void pauseThenBegin(Clock::duration pause);
  Clock::duration growingPause(int failures);

  Environment& environment_;
  State state_ = State::off;
  bool isWatched_ = false;
  std::optional<std::string> cursor_;  // the account's newest
  std::string askedCursor_;            // that of the request that waits, or waited last
  Clock::time_point askedAt_{};
  Clock::duration pauseAfterPoll_{};
  int failures_ = 0;      // in a row
  int emptyWakeUps_ = 0;  // in a row: polls that it asked for and that brought nothing
};
