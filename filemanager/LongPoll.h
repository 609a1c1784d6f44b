#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// Decides when a request that waits at the service for the account's next change (list_folder/longpoll) is
/// sent, and what its answer leads to: an early poll. It applies no change itself, and where it fails nothing
/// is lost, since the timer polls all the same.
///
/// One request waits at a time, and only while there is a cursor and somebody watches the account. Between
/// two of them it keeps what the service asks for (`backoff`), and longer pauses after failures and after
/// wake-ups that led to nothing. Pauses are spread by chance, so that many clients do not come back together.
///
/// Threads: none of its own and no locks; every member belongs to one thread, on which its Line calls back.
class LongPoll {
 public:
  using Clock = std::chrono::steady_clock;

  /// What it acts through.
  class Line {
   public:
    virtual ~Line() = default;
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
  explicit LongPoll(Line& line) : line_(line) {}
  LongPoll(const LongPoll&) = delete;
  LongPoll& operator=(const LongPoll&) = delete;

  /// Somebody watches the account from now on, or nobody does any more.
  void setWatched(bool isWatched);
  /// The line was interrupted, as after the machine slept or moved to another network: what waits may never
  /// be answered, and earlier failures say nothing any more.
  void restart();

  /// A poll has ended, whoever asked for it.
  /// @param broughtChanges  whether it told of changes since the cursor before.
  void polled(const std::string& cursor, bool broughtChanges);
  void pollFailed();

  // From the line.
  void answered(bool changes, std::chrono::seconds backoff);
  /// @param retryAfter  how long the service asks to be left alone.
  void failed(std::chrono::seconds retryAfter);
  void pauseEnded();

 private:
  enum class State {
    off,      // nobody watches, or there is no cursor
    waiting,  // at the service
    polling,  // until the poll that it asked for has ended
    pausing
  };
  void begin();
  void pauseThenBegin(Clock::duration pause);
  Clock::duration growingPause(int failures);

  Line& line_;
  State state_ = State::off;
  bool isWatched_ = false;
  std::optional<std::string> cursor_;  // the account's newest
  std::string askedCursor_;            // that of the request that waits, or waited last
  Clock::time_point askedAt_{};
  Clock::duration pauseAfterPoll_{};
  int failures_ = 0;      // in a row
  int emptyWakeUps_ = 0;  // in a row: polls that it asked for and that brought nothing
};
