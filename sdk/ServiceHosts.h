#pragma once
#include <string>

#include "foundation/NSError.h"

/// The service's origins (scheme, host and port, without a trailing slash).
struct ServiceHosts {
  std::string api = "https://api.dropboxapi.com";
  std::string content = "https://content.dropboxapi.com";
  std::string notify = "https://notify.dropboxapi.com";
  std::string web = "https://www.dropbox.com";
};

/// The hosts to talk to. KZV_SERVICE_URL in the environment replaces all four by one origin; plain http is
/// taken for this machine's loopback addresses only, since tokens travel with every request.
/// @return the hosts; `error` is set when the variable holds anything else, and then nothing may be sent.
ServiceHosts serviceHostsFromEnvironment(NSErrorRef* error);
/// The same for a given text; null stands for a variable that is not set.
ServiceHosts serviceHosts(const char* replacement, NSErrorRef* error);
