#pragma once
#include <string>

#include "foundation/NSError.h"

/// The service's origins (scheme, host and port, without a trailing slash), or why there are none.
struct DBServiceHosts {
  std::string api = "https://api.dropboxapi.com";
  std::string content = "https://content.dropboxapi.com";
  std::string notify = "https://notify.dropboxapi.com";
  std::string web = "https://www.dropbox.com";
  /// What the tokens that these hosts give are bound to; empty for the service's own hosts.
  std::string origin;
  NSErrorRef refusal;  // set: the replacement must not be used; the origins are empty, nothing may be sent

  /// The hosts to talk to. KZV_SERVICE_URL in the environment replaces all four by one origin; plain http is
  /// accepted for this machine's loopback addresses only, since tokens travel with every request. Any other
  /// address is refused (DBErrorServiceAddress): a mistyped one must never lead back to the real service.
  static DBServiceHosts fromEnvironment();
  /// The same for a given text; null or empty stands for a variable that is not set.
  static DBServiceHosts from(const char* replacement);
};
