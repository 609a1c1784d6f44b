#pragma once

#include <functional>
#include <string>

#include "standin/faults/Faults.h"
#include "standin/http/Http.h"

namespace kzv::standin {

/// Calls `endpoint`, which answers the request, and applies the route's due fault rule, if any: before the
/// endpoint, instead of it, to the request's body as it is read, or to the answer as it is sent. A rule
/// counts as hit when the failure occurs, before the client can notice.
/// @param fileIsInRequest  the file's bytes are in the request's body, else in the answer's. Blocks for an
/// injected delay. `faults` must outlive the sending of the answer.
void withFaults(Faults& faults, const std::string& route, bool fileIsInRequest, HttpRequest& request,
                HttpResponse& response, const std::function<void()>& endpoint);

}  // namespace kzv::standin
