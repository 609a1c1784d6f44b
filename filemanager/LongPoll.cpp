#include "filemanager/LongPoll.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace {

/// Few requests while nothing happens, and yet a connection that died unseen is replaced after some minutes.
constexpr auto waitLimit = 300s;

/// The service lets nothing wait for less than this, unless there is a change.
constexpr auto shortestWait = 30s;

/// A folder that changes all the time must not make a request for each change.
constexpr auto shortestRound = 1s;

constexpr auto longestPause = 300s;

}  // namespace

void LongPoll::setWatched(bool isWatched) {
  if (isWatched_ == isWatched) return;
  isWatched_ = isWatched;
  if (isWatched) {
    begin();
  } else {
    if (state_ == State::waiting) environment_.cancelWait();
    state_ = State::off;
  }
}

void LongPoll::restart() {
  failures_ = emptyWakeUps_ = 0;
  if (state_ == State::waiting) environment_.cancelWait();
  if (state_ == State::waiting || state_ == State::pausing) begin();
}

void LongPoll::begin() {
  if (!isWatched_ || !cursor_) {
    state_ = State::off;
    return;
  }
  state_ = State::waiting;
  askedCursor_ = *cursor_;
  askedAt_ = environment_.now();
  environment_.wait(askedCursor_, waitLimit);
}

void LongPoll::pauseThenBegin(Clock::duration pause) {
  const auto roundLeft = shortestRound - (environment_.now() - askedAt_);
  pause = std::max({pause, roundLeft, Clock::duration::zero()});
  if (pause == Clock::duration::zero()) return begin();
  constexpr double spread = 0.2;
  state_ = State::pausing;
  environment_.startPause(
      std::chrono::duration_cast<Clock::duration>(pause * (1 + spread * environment_.randomFraction())));
}

LongPoll::Clock::duration LongPoll::growingPause(int failures) {
  constexpr int doublings = 9;
  return std::min<Clock::duration>(1s * (1 << std::min(failures, doublings)), longestPause);
}

void LongPoll::polled(const std::string& cursor, bool broughtChanges) {
  cursor_ = cursor;
  switch (state_) {
    case State::off:
      begin();
      break;
    case State::waiting:
      // Others have fetched what it waits for. An answer that is on its way would lead to a poll for nothing,
      // and one that does not come means that the connection is dead.
      if (!broughtChanges || askedCursor_ == cursor) break;
      environment_.cancelWait();
      pauseThenBegin({});
      break;
    case State::polling:
      emptyWakeUps_ = broughtChanges ? 0 : emptyWakeUps_ + 1;
      pauseThenBegin(std::max(pauseAfterPoll_, emptyWakeUps_ > 1 ? growingPause(emptyWakeUps_ - 1) : 0s));
      break;
    case State::pausing:
      break;
  }
}

void LongPoll::pollFailed() {
  if (state_ != State::polling) return;
  pauseThenBegin(std::max(pauseAfterPoll_, growingPause(++failures_)));
}

void LongPoll::answered(bool changes, std::chrono::seconds backoff) {
  if (state_ != State::waiting) return;
  const bool cameTooEarly = !changes && environment_.now() - askedAt_ < shortestWait;
  failures_ = cameTooEarly ? failures_ + 1 : 0;
  // The change may have been fetched meanwhile; if there is another one, the next request is answered at
  // once.
  if (changes && cursor_ == askedCursor_) {
    state_ = State::polling;
    pauseAfterPoll_ = backoff;
    environment_.poll();
    return;
  }
  pauseThenBegin(std::max<Clock::duration>(backoff, cameTooEarly ? growingPause(failures_) : 0s));
}

void LongPoll::failed(std::chrono::seconds retryAfter) {
  if (state_ != State::waiting) return;
  // Some networks cut what is silent for a while: when it could wait for long enough, it is worth its
  // request.
  failures_ = environment_.now() - askedAt_ < shortestWait ? failures_ + 1 : 1;
  pauseThenBegin(std::max<Clock::duration>(retryAfter, growingPause(failures_)));
}

void LongPoll::pauseEnded() {
  if (state_ == State::pausing) begin();
}
