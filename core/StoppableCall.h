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

/// Polling interval of the cancellation check during transfers: short enough that a stop takes effect within
/// a quarter of a second, even when two such waits follow each other.
inline constexpr std::chrono::milliseconds stopInterval{50};

/// The error after a progress callback has returned false: CanceledByUserErrorDomain, -1.
inline NSErrorRef stoppedByUser() {
  return std::make_shared<NSError>(std::string(CanceledByUserErrorDomain), -1);
}

/// Runs a blocking call that cannot be stopped on another thread, and calls `shouldContinue` on this one
/// every stopInterval meanwhile. When that returns false, the result is empty (null, nothing, false) with
/// stoppedByUser(), and the call continues in the background: it must own everything it uses and be harmless
/// when it ends late. `call` is destroyed before its result is returned. Any thread except those of
/// DispatchQueue::global(); blocks.
/// @param call   takes an error pointer and returns a result that is empty on failure.
/// @param error  may be null; written only on failure.
template <class ShouldContinue, class Call>
auto callUnlessStopped(const ShouldContinue& shouldContinue, Call call, NSErrorRef* error)
    -> decltype(call(error)) {
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
    if (shouldContinue()) continue;
    setError(error, stoppedByUser());
    return Result{};
  }
  auto [result, reason] = answer.get();
  if (reason) setError(error, std::move(reason));
  return std::move(result);
}
