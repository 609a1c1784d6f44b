#include "sdk/wire/RetryPolicy.h"

#include <algorithm>

#include <curl/curl.h>

#include "sdk/wire/ErrorReader.h"

namespace kzv::sdk {

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

bool wasCut(int curlCode) {
  switch (curlCode) {
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return true;
    default:
      return false;  // no route, no name, no certificate, silence: would fail again
  }
}

bool isTransient(long status) {
  return status == 429 || status == 500 || status == 502 || status == 503 || status == 504;
}

// "Retry-After: 0" from a service in trouble must not become a tight loop.
constexpr milliseconds shortestWait(50);

milliseconds spread(milliseconds widest, double jitter) {
  return milliseconds(static_cast<std::int64_t>(jitter * static_cast<double>(widest.count())));
}

/// `first` doubled `times` times, at most `limit`.
milliseconds doubled(milliseconds first, int times, milliseconds limit) {
  while (times-- > 0 && first < limit) first *= 2;
  return std::min(first, limit);
}

}  // namespace

bool RetryPolicy::isContention(const HttpResponse& response) {
  return response.curlCode == CURLE_OK && (response.status == 429 || response.status == 409) &&
         hasErrorTag(response, "too_many_write_operations");
}

std::optional<milliseconds> RetryPolicy::waitBeforeRepeating(const HttpResponse& response, double jitter) {
  if (isContention(response)) return waitForOthers(seconds(response.retryAfterSeconds.value_or(0)), jitter);
  if (tries_ >= maxTries) return std::nullopt;
  if (response.isDamaged) {
    ++tries_;
    return waitAfterDamage;
  }
  if (response.curlCode != CURLE_OK) return wasCut(response.curlCode) ? shortWait(jitter) : std::nullopt;
  if ((response.status == 429 || response.status == 503) && response.retryAfterSeconds) {
    return waitAsRequested(seconds(*response.retryAfterSeconds), jitter);
  }
  return isTransient(response.status) ? shortWait(jitter) : std::nullopt;
}

std::optional<milliseconds> RetryPolicy::waitAsRequested(seconds requested, double jitter) {
  if (requested > maxRequestedWait - waitedOnRequest_) return std::nullopt;
  waitedOnRequest_ += requested;
  const milliseconds base = std::max<milliseconds>(requested, shortestWait);
  return base + spread(doubled(base, tries_++ - 1, seconds(10)), jitter);
}

std::optional<milliseconds> RetryPolicy::waitForOthers(seconds requested, double jitter) {
  const milliseconds widest = doubled(milliseconds(100), refusals_++, seconds(5));
  const milliseconds wait = std::max<milliseconds>(requested, shortestWait) + spread(widest, jitter);
  if (wait > maxWaitForOthers - waitedForOthers_) return std::nullopt;
  waitedForOthers_ += wait;
  return wait;
}

std::optional<milliseconds> RetryPolicy::shortWait(double jitter) {
  if (shortRetries_ >= shortRetryLimit_) return std::nullopt;
  const milliseconds base = shortRetries_ == 0 ? milliseconds(150) : milliseconds(300) * (1 << shortRetries_);
  ++shortRetries_;
  ++tries_;
  return base + spread(base, jitter);
}

}  // namespace kzv::sdk
