#include "sdk/DBServiceHosts.h"

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <arpa/inet.h>
#include <curl/curl.h>

#include "foundation/NSString.h"
#include "sdk/DBError.h"

namespace {

struct UrlParts {
  std::string scheme, host, port;
  bool onlyOrigin = false;
};

std::string part(CURLU* url, CURLUPart which, unsigned flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, flags) != CURLUE_OK) return {};
  std::string copy(text);
  curl_free(text);
  return copy;
}

bool parse(const char* text, UrlParts& parts) {
  // libcurl ignores an empty user, query or fragment, and decodes escapes in a host name.
  if (std::string_view(text).find_first_of("@?#%\\") != std::string_view::npos) return false;
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text, 0) != CURLUE_OK) return false;
  parts = {part(url.get(), CURLUPART_SCHEME), part(url.get(), CURLUPART_HOST),
           part(url.get(), CURLUPART_PORT, CURLU_NO_DEFAULT_PORT)};
  // One spelling per origin, since tokens are stored by origin.
  for (char& c : parts.host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::string path = part(url.get(), CURLUPART_PATH);
  parts.onlyOrigin = path.empty() || path == "/";
  return !parts.host.empty();
}

bool isLoopback(const std::string& host) {
  if (host == "localhost" || host == "[::1]") return true;
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

DBServiceHosts refused(std::string_view reason) {
  DBServiceHosts none{"", "", "", "", "refused", nullptr};
  none.refusal = NSError::withText(DBErrorDomain, DBErrorServiceAddress,
                                   "the address of the service (--service or KZV_SERVICE_URL) " +
                                       std::string(reason) + "; nothing was sent");
  return none;
}

}  // namespace

DBServiceHosts DBServiceHosts::from(const char* replacement) {
  if (!replacement || !*replacement) return {};
  UrlParts parts;
  if (!parse(replacement, parts) || !parts.onlyOrigin)
    return refused("must be scheme, host and port, and nothing else");
  const bool plain = parts.scheme == "http";
  if (!plain && parts.scheme != "https") return refused("must begin with https: or http:");
  if (plain && !isLoopback(parts.host))
    return refused("may use plain http only on this machine's loopback addresses");
  const std::string origin = parts.scheme + "://" + parts.host + (parts.port.empty() ? "" : ":" + parts.port);
  return {origin, origin, origin, origin, origin, nullptr};
}

DBServiceHosts DBServiceHosts::fromEnvironment() {
  return DBServiceHosts::from(std::getenv("KZV_SERVICE_URL"));
}
