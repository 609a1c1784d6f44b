#include "sdk/RetryPolicy.h"

#include <algorithm>

#include <curl/curl.h>

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
      return false;  // no route, no name, no certificate, silence: the same would come again
  }
}

bool passesByItself(long status) {
  return status == 429 || status == 500 || status == 502 || status == 503 || status == 504;
}

}  // namespace

std::optional<milliseconds> RetryPolicy::waitBeforeRepeating(const HttpResponse& response, double jitter) {
  if (tries_ >= maxTries) return std::nullopt;
  if (response.isDamaged) {
    ++tries_;
    return waitAfterDamage;
  }
  if (response.curlCode != CURLE_OK) return wasCut(response.curlCode) ? shortWait(jitter) : std::nullopt;
  if ((response.status == 429 || response.status == 503) && response.retryAfterSeconds) {
    return waitAsTold(seconds(*response.retryAfterSeconds));
  }
  return passesByItself(response.status) ? shortWait(jitter) : std::nullopt;
}

std::optional<milliseconds> RetryPolicy::waitAsTold(seconds told) {
  if (told > maxWaitAsTold - waitedAsTold_) return std::nullopt;
  waitedAsTold_ += told;
  ++tries_;
  // "Retry-After: 0" from a service in trouble must not become a tight loop.
  return std::max<milliseconds>(told, milliseconds(50));
}

std::optional<milliseconds> RetryPolicy::shortWait(double jitter) {
  if (shortRetries_ >= maxShortRetries) return std::nullopt;
  const milliseconds base = shortRetries_ == 0 ? milliseconds(150) : milliseconds(600);
  ++shortRetries_;
  ++tries_;
  return base + milliseconds(static_cast<int>(jitter * static_cast<double>(base.count())));
}
