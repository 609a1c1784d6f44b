#pragma once
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "core/KZVConstants.h"
#include "foundation/DispatchQueue.h"
#include "foundation/NSError.h"

/// How often whoever waits during a transfer asks whether to go on: often enough that a stop is answered
/// within a quarter of a second, which a person takes for "at once", even where two such waits stand in a
/// row.
inline constexpr std::chrono::milliseconds stopInterval{50};

/// The error of what was stopped through a progress callback: CanceledByUserErrorDomain, -1.
inline NSErrorRef stoppedByUser() {
  return std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1);
}

/// Runs a call that blocks and knows no stop on another thread, and asks `goesOn` (on this one) every
/// stopInterval while waiting for it. Once that says no, the result is an empty one (null, nothing, false)
/// with stoppedByUser(), and the call goes on by itself: it must own what it uses and may do no harm when it
/// ends late. What it owns is let go before its result comes. Any thread but those of
/// DispatchQueue::global(); blocks.
/// @param call   gets an error holder and gives a result that is empty on failure.
/// @param error  may be null; written only on failure.
template <class GoesOn, class Call>
auto callUnlessStopped(const GoesOn& goesOn, Call call, NSErrorRef* error) -> decltype(call(error)) {
  using Result = decltype(call(error));
  const auto promise = std::make_shared<std::promise<std::pair<Result, NSErrorRef>>>();
  auto answer = promise->get_future();
  DispatchQueue::global().async([promise, once = std::make_optional(std::move(call))]() mutable {
    NSErrorRef reason;
    Result result = (*once)(&reason);
    once.reset();
    promise->set_value({std::move(result), std::move(reason)});
  });
  while (answer.wait_for(stopInterval) != std::future_status::ready) {
    if (goesOn()) continue;
    setError(error, stoppedByUser());
    return Result{};
  }
  auto [result, reason] = answer.get();
  if (reason) setError(error, std::move(reason));
  return std::move(result);
}
