#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"
#include "sdk/wire/HttpRequest.h"

namespace kzv::sdk {

/// Describes a request, for its error.
struct RequestDescription {
  std::string action;  // completes "Could not …": "load the listing of"
  std::string path;    // remote; empty where there is none
  std::string uploadId{};
  std::optional<std::int64_t> offset{};  // bytes; with uploadId: where the upload can be resumed
  std::string storedRev{};               // of a damaged version that is still at the path
};

/// The error for an unsuccessful answer (codes and keys: sdk/DBError.h). Its text never quotes the request.
NSErrorRef errorFromResponse(const HttpResponse& response, const RequestDescription& about);
/// An error of our own making; `reason` completes "Could not …: ".
NSErrorRef requestError(int code, std::string_view reason, const RequestDescription& about);
NSErrorRef invalidResponseError(const HttpResponse& response, const RequestDescription& about);

/// The tags of an error answer, outermost first: "path", "not_found". Empty when it has none.
std::vector<std::string> errorTags(const HttpResponse& response);
bool hasErrorTag(const HttpResponse& response, std::string_view tag);
/// The "error" text of an OAuth token answer (RFC 6749, 5.2), or empty.
std::string oauthErrorOf(const HttpResponse& response);

}  // namespace kzv::sdk
