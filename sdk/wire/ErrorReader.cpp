#include "sdk/wire/ErrorReader.h"

#include <algorithm>
#include <boost/json.hpp>

#include <curl/curl.h>

#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "sdk/DBError.h"
#include "sdk/wire/ServiceJson.h"
#include "sdk/wire/ServiceLimits.h"
#include "sdk/wire/ServiceText.h"

namespace kzv::sdk {

namespace json = boost::json;

namespace {

struct TagRow {
  std::string_view tag;
  int code;  // 0: the answer's HTTP status
  std::string_view reason;
};

constexpr TagRow tagRows[] = {
    {"not_found", 404, "there is nothing at this path"},
    {"not_file", 404, "this is not a file"},
    {"not_folder", 404, "this is not a folder"},
    {"malformed_path", 400, "the service does not accept this path"},
    {"disallowed_name", 400, "the service does not accept this name"},
    {"conflict", 403, "another item is in the way"},
    {"no_write_permission", 403, "you may not write here"},
    {"no_permission", 403, "the account may not do this"},
    {"access_denied", 403, "the account may not do this"},
    {"access_restricted", 403, "access is restricted by the team"},
    {"invalid_account_type", 403, "this kind of account may not do this"},
    {"operation_suppressed", 403, "this is not allowed at this path"},
    {"team_folder", 403, "a team folder cannot be moved or deleted"},
    {"insufficient_space", 507, "there is not enough space in the account"},
    {"insufficient_quota", 507, "there is not enough space in the account"},
    {"too_many_files", 406, "too many files and folders for one request"},
    {"unsupported_extension", 415, "there is no preview of this kind of file"},
    {"unsupported_image", 415, "there is no preview of this picture"},
    {"conversion_error", 415, "no preview of this picture could be made"},
    {"unsupported_file", 0, "this file exists only online and cannot be downloaded"},
    {"restricted_content", 0, "the service does not provide this content"},
    {"locked", 0, "the item is locked"},
    {"too_many_requests", 503, "the service asks to wait"},
    {"too_many_write_operations", 503, "another change of the account is in progress"},
    {"invalid_access_token", 401, "the authorization is no longer valid; link the account again"},
    {"expired_access_token", 401, "the authorization has expired"},
    {"missing_scope", 401, "the application has not been granted this permission"},
    {"user_suspended", 401, "the account is suspended"},
    {"invalid_grant", 0, "the authorization is no longer valid; sign in again"},
    {"invalid_client", 0, "the service does not know this application"},
    {"reset", 0, "the list of changes must be restarted"},
    {"cant_move_folder_into_itself", 0, "a folder cannot be moved into itself"},
    {"duplicated_or_nested_paths", 0, "source and target are the same or one is inside the other"},
    {"cant_move_shared_folder", 0, "a shared folder cannot be moved there"},
    {"cant_nest_shared_folder", 0, "a shared folder cannot be inside another"},
    {"incorrect_offset", 0, "the service has received a different number of bytes"},
    {"content_hash_mismatch", 0, "the content was damaged in transit"},
    {"payload_too_large", 0, "too many bytes for one request"},
    {"too_large", 0, "the file is too large"},
    {"closed", 0, "the upload has already been completed"},
    {"email_not_verified", 0, "the account's e-mail address has not been verified"},
    {"invalid_root", 0, "the account's root folder has changed"},
};

const TagRow* rowFor(std::string_view tag) {
  const auto row = std::find_if(std::begin(tagRows), std::end(tagRows),
                                [&](const TagRow& candidate) { return candidate.tag == tag; });
  return row == std::end(tagRows) ? nullptr : row;
}

/// Prefers the innermost known tag.
const TagRow* rowFor(const std::vector<std::string>& tags) {
  const TagRow* found = nullptr;
  for (const std::string& tag : tags) {
    if (const TagRow* row = rowFor(tag)) found = row;
  }
  return found;
}

/// The tags of nested unions from {"error":…} inwards; rate limits and refused uploads have the next union
/// under "reason".
std::vector<std::string> tagsOf(const json::object& answer) {
  constexpr int deepest = 8;
  std::vector<std::string> tags;
  const json::value* value = answer.if_contains("error");
  for (int depth = 0; value && depth < deepest; ++depth) {
    const std::string_view tag = servicejson::tag(*value);
    if (!tag.empty()) tags.emplace_back(tag);
    const json::object* members = value->if_object();
    if (!members) break;
    value = tag.empty() ? nullptr : members->if_contains(tag);
    if (!value) value = members->if_contains("reason");
  }
  return tags;
}

struct Findings {
  std::int64_t code = 0;
  std::string reason;
  std::string summary;
  std::optional<std::int64_t> retryAfterSeconds;
  std::string_view tag{};  // the innermost that is known; empty: none
};

std::string reasonForStatus(long status) {
  if (status == 401) return "the account is not authorized";
  if (status == 429 || status == 503) return "the service asks to wait";
  if (status >= 500) return "the service has a problem (status " + std::to_string(status) + ")";
  return "the service refused the request (status " + std::to_string(status) + ")";
}

std::string summaryOf(const HttpResponse& response, const json::object* answer) {
  if (answer) return serviceText(servicejson::text(*answer, "error_summary").value_or(""));
  // The text of a 400 names the invalid field. One about the authorization might quote a token.
  const bool mayQuoteSecret = response.body.find("uthorization") != std::string::npos ||
                              response.body.find("earer") != std::string::npos ||
                              response.body.find("oken") != std::string::npos;
  return response.status == 400 && !mayQuoteSecret ? serviceText(response.body) : std::string();
}

std::int64_t codeForStatus(long status) { return status == 429 ? 503 : status; }

Findings findingsOf(const HttpResponse& response) {
  if (response.curlCode != CURLE_OK) {
    const auto code = static_cast<CURLcode>(response.curlCode);
    return {-static_cast<std::int64_t>(code),
            std::string("the service could not be reached (") + curl_easy_strerror(code) + ")",
            {},
            {}};
  }
  const auto document = servicejson::Document::parse(response.body);
  const json::object* answer = document ? &document->root() : nullptr;
  Findings findings{codeForStatus(response.status), reasonForStatus(response.status),
                    summaryOf(response, answer), response.retryAfterSeconds};
  if (!answer) return findings;
  if (const TagRow* row = rowFor(tagsOf(*answer))) {
    if (row->code != 0) findings.code = row->code;
    findings.reason = row->reason;
    findings.tag = row->tag;
  } else if (const json::object* message = servicejson::object(*answer, "user_message")) {
    if (const auto text = servicejson::text(*message, "text")) findings.reason = serviceText(*text);
  }
  const json::object* error = servicejson::object(*answer, "error");
  if (error && !findings.retryAfterSeconds) {
    findings.retryAfterSeconds = servicejson::integer(*error, "retry_after");
  }
  if (auto& seconds = findings.retryAfterSeconds)
    *seconds = std::clamp<std::int64_t>(*seconds, 0, servicelimits::longestWaitSeconds);
  return findings;
}

std::string sentence(const RequestDescription& about, std::string_view reason) {
  std::string text = "Could not " + about.action;
  if (!about.path.empty()) text += " \"" + about.path + "\"";
  text += ": ";
  text += reason;
  if (!text.ends_with('.')) text += '.';
  return text;
}

/// Null for an empty text, so that the detail is omitted.
id detailText(std::string_view text) { return text.empty() ? nullptr : str(std::string(text)); }

NSErrorRef makeError(std::int64_t code, std::string_view reason, const RequestDescription& about,
                     const HttpResponse& response = {}, const Findings& findings = {}) {
  const auto number = [](const std::optional<std::int64_t>& value) {
    return value ? id(NSNumber::withInt(*value)) : nullptr;
  };
  return NSError::withText(
      DBErrorDomain, code, sentence(about, reason),
      {{DBErrorPathKey, detailText(about.path)},
       {DBErrorUploadIdKey, detailText(about.uploadId)},
       {DBErrorStoredRevKey, detailText(about.storedRev)},
       {DBErrorOffsetKey, number(about.offset)},
       {DBErrorRequestIdKey, detailText(serviceText(response.requestId))},
       {DBErrorHttpStatusKey, response.status != 0 ? id(NSNumber::withInt(response.status)) : nullptr},
       {DBErrorSummaryKey, detailText(findings.summary)},
       {DBErrorTagKey, detailText(findings.tag)},
       {DBErrorRetryAfterKey, number(findings.retryAfterSeconds)}});
}

}  // namespace

NSErrorRef errorFromResponse(const HttpResponse& response, const RequestDescription& about) {
  const Findings findings = findingsOf(response);
  return makeError(findings.code, findings.reason, about, response, findings);
}

NSErrorRef requestError(int code, std::string_view reason, const RequestDescription& about) {
  return makeError(code, reason, about);
}

NSErrorRef invalidResponseError(const HttpResponse& response, const RequestDescription& about) {
  return makeError(DBErrorInvalidResponse, "the service's answer could not be understood", about, response);
}

std::vector<std::string> errorTags(const HttpResponse& response) {
  const auto document = servicejson::Document::parse(response.body);
  return document ? tagsOf(document->root()) : std::vector<std::string>();
}

bool hasErrorTag(const HttpResponse& response, std::string_view tag) {
  const auto tags = errorTags(response);
  return std::find(tags.begin(), tags.end(), tag) != tags.end();
}

std::string oauthErrorOf(const HttpResponse& response) {
  const auto document = servicejson::Document::parse(response.body);
  return document ? std::string(servicejson::text(document->root(), "error").value_or("")) : std::string();
}

}  // namespace kzv::sdk
