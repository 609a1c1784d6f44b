#pragma once
#include <string>

#include "foundation/NSError.h"

/// The service's origins (scheme, host and port, without a trailing slash), or the reason why there are none.
struct DBServiceHosts {
  std::string api = "https://api.dropboxapi.com";
  std::string content = "https://content.dropboxapi.com";
  std::string notify = "https://notify.dropboxapi.com";
  std::string web = "https://www.dropbox.com";
  /// The origin to which tokens from these hosts are bound; empty for the service's own hosts.
  std::string origin;
  NSErrorRef refusal;  // set: the replacement must not be used; the origins are empty, nothing may be sent

  /// The hosts to use. KZV_SERVICE_URL in the environment replaces all four by one origin; plain http is
  /// accepted for loopback addresses only, since every request has a token. Any other address is refused
  /// (DBErrorServiceAddress): a mistyped one must never lead to the real service.
  static DBServiceHosts fromEnvironment();
  /// The same for a given text; null or empty as if the variable was not set.
  static DBServiceHosts from(const char* replacement);
};
