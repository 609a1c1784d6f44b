#include "sdk/ServiceHosts.h"

#include <cstdlib>
#include <memory>

#include <arpa/inet.h>
#include <curl/curl.h>

#include "foundation/NSString.h"
#include "sdk/DBError.h"

namespace {

struct UrlParts {
  std::string scheme, host, port;
  bool onlyOrigin = false;
};

std::string part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, 0) != CURLUE_OK) return {};
  std::string copy(text);
  curl_free(text);
  return copy;
}

bool parse(const char* text, UrlParts& parts) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text, 0) != CURLUE_OK) return false;
  parts = {part(url.get(), CURLUPART_SCHEME), part(url.get(), CURLUPART_HOST),
           part(url.get(), CURLUPART_PORT)};
  const std::string path = part(url.get(), CURLUPART_PATH);
  parts.onlyOrigin = (path.empty() || path == "/") && part(url.get(), CURLUPART_QUERY).empty() &&
                     part(url.get(), CURLUPART_FRAGMENT).empty() && part(url.get(), CURLUPART_USER).empty() &&
                     part(url.get(), CURLUPART_PASSWORD).empty();
  return !parts.host.empty();
}

bool isLoopback(const std::string& host) {
  if (host == "localhost" || host == "[::1]") return true;
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

NSErrorRef refusal(std::string_view reason) {
  return std::make_shared<NSError>(
      std::string(DBErrorDomain), DBErrorServiceAddress,
      NSDictionary::with({{NSLocalizedDescriptionKey, str("The address of the service in KZV_SERVICE_URL " +
                                                          std::string(reason) + ".")}}));
}

}  // namespace

ServiceHosts serviceHosts(const char* replacement, NSErrorRef* error) {
  if (!replacement || !*replacement) return {};
  UrlParts parts;
  if (!parse(replacement, parts) || !parts.onlyOrigin) {
    setError(error, refusal("must be scheme, host and port, and nothing else"));
    return {};
  }
  const bool plain = parts.scheme == "http";
  if (!plain && parts.scheme != "https") {
    setError(error, refusal("must begin with https: or http:"));
    return {};
  }
  if (plain && !isLoopback(parts.host)) {
    setError(error, refusal("may use plain http only on this machine's loopback addresses"));
    return {};
  }
  const std::string origin = parts.scheme + "://" + parts.host + (parts.port.empty() ? "" : ":" + parts.port);
  return {origin, origin, origin, origin};
}

ServiceHosts serviceHostsFromEnvironment(NSErrorRef* error) {
  return serviceHosts(std::getenv("KZV_SERVICE_URL"), error);
}
