#pragma once

#include <functional>
#include <string>

#include "standin/faults/Faults.h"
#include "standin/http/Http.h"

namespace kzv::standin {

/// Calls `endpoint`, which answers the request, and carries out the fault rule that is due for the route, if
/// any: before the endpoint, instead of it, on the request's body as the endpoint reads it, or on the answer
/// while it is sent. A rule counts as hit when the failure takes place, before the client can notice.
/// @param fileIsInRequest  the route's file bytes travel in the request's body, else in the answer's.
/// Blocks for an ordered delay. `faults` must outlive the sending of the answer.
void withFaults(Faults& faults, const std::string& route, bool fileIsInRequest, HttpRequest& request,
                HttpResponse& response, const std::function<void()>& endpoint);

}  // namespace kzv::standin
