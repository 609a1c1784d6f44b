#include "fsops/ServiceErrors.h"

#include <algorithm>
#include <string_view>

#include "core/FSError.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "sdk/DBError.h"

namespace {

struct TagRow {
  std::string_view tag;
  FSErrorCode code;
};

/// By the service's own error tag.
constexpr TagRow tagRows[] = {
    {"not_found", FSErrorCode::notFound},
    {"not_file", FSErrorCode::isFolder},
    {"not_folder", FSErrorCode::notFolder},
    {"conflict", FSErrorCode::exists},
    {"malformed_path", FSErrorCode::nameRefused},
    {"disallowed_name", FSErrorCode::nameRefused},
    {"cant_move_folder_into_itself", FSErrorCode::unsupported},
    {"duplicated_or_nested_paths", FSErrorCode::unsupported},
    {"cant_move_shared_folder", FSErrorCode::unsupported},
    {"cant_nest_shared_folder", FSErrorCode::unsupported},
    {"unsupported_file", FSErrorCode::unsupported},
    {"restricted_content", FSErrorCode::denied},
    {"locked", FSErrorCode::denied},
    {"invalid_grant", FSErrorCode::denied},
    {"invalid_client", FSErrorCode::denied},
    {"email_not_verified", FSErrorCode::denied},
    {"content_hash_mismatch", FSErrorCode::damaged},
    {"payload_too_large", FSErrorCode::tooLarge},
    {"too_large", FSErrorCode::tooLarge},
    {"incorrect_offset", FSErrorCode::connection},
    {"closed", FSErrorCode::connection},
    {"reset", FSErrorCode::connection},
};

constexpr int serverErrors = 500;

FSErrorCode codeOf(std::int64_t code) {
  if (code < 0) return FSErrorCode::connection;  // a transport error
  switch (code) {
    case 400:
      return FSErrorCode::nameRefused;
    case 401:
    case 403:
    case DBErrorNotLinked:
    case DBErrorAuthorizationPending:
      return FSErrorCode::denied;
    case 404:
      return FSErrorCode::notFound;
    case 406:
    case 413:
      return FSErrorCode::tooLarge;
    case 415:
      return FSErrorCode::unsupported;
    case 429:
    case 503:
      return FSErrorCode::busy;
    case 507:
      return FSErrorCode::noSpace;
    case DBErrorFileChanged:
      return FSErrorCode::busy;
    case DBErrorInvalidResponse:
      return FSErrorCode::damaged;
    default:
      return code >= serverErrors && code < 600 ? FSErrorCode::connection : FSErrorCode::internal;
  }
}

FSErrorCode codeOf(const NSError& error) {
  const id detail = error.detail(DBErrorTagKey);
  if (const std::string* tag = textOf(detail)) {
    const auto row = std::find_if(std::begin(tagRows), std::end(tagRows),
                                  [&](const TagRow& candidate) { return candidate.tag == *tag; });
    if (row != std::end(tagRows)) return row->code;
  }
  // A malformed request is our bug, unless the path's form was rejected.
  const id summary = error.detail(DBErrorSummaryKey);
  const std::string* text = textOf(summary);
  const bool isAnswer = error.detail(DBErrorHttpStatusKey) != nullptr;
  if (error.code() == 400 && isAnswer && !(text && text->find("pattern") != std::string::npos))
    return FSErrorCode::internal;
  return codeOf(error.code());
}

std::optional<std::chrono::seconds> retryAfterOf(const NSError& error) {
  const auto seconds = as<NSNumber>(error.detail(DBErrorRetryAfterKey));
  return seconds ? std::optional(std::chrono::seconds(seconds->int64Value())) : std::nullopt;
}

}  // namespace

ServiceErrors::~ServiceErrors() {
  if (!reason_ || !host_) return;
  if (reason_->domain() != DBErrorDomain) {
    *host_ = reason_;
    return;
  }
  FSErrorCode code = codeOf(*reason_);
  if (code == FSErrorCode::notFound && operation_ == Operation::upload) code = FSErrorCode::connection;
  *host_ = fsError(code, reason_->localizedDescription(), reason_,
                   code == FSErrorCode::busy ? retryAfterOf(*reason_) : std::nullopt);
}
