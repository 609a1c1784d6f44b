#pragma once
#include <string_view>

/// Errors of the service and of the way to it. Codes tell cases apart: 400 malformed or disallowed name, 401
/// token invalid, 403 conflict or no permission, 404 not found (or the other kind of item), 406 too many
/// files, 415 no preview of this kind, 503 too many requests or writes, 507 no space; any other answer its
/// HTTP status; a failure of transport the negative of libcurl's code (CURLE_…).
inline constexpr std::string_view DBErrorDomain = "dropbox.com";

/// Code: the browser sign-in has not been approved yet; ask again after the next activation.
inline constexpr int DBErrorAuthorizationPending = 1000;
/// Code: an answer of the service that could not be understood.
inline constexpr int DBErrorInvalidResponse = 101;
/// Code: the account is not linked (any more).
inline constexpr int DBErrorNotLinked = 102;
/// Code: a local path that the request would write to or read from is not acceptable.
inline constexpr int DBErrorLocalFile = 103;
/// Code: KZV_SERVICE_URL holds an address that must not be used.
inline constexpr int DBErrorServiceAddress = 104;

/// Code: a local file changed while it was being sent. Nothing of the mixture was stored.
inline constexpr int DBErrorFileChanged = 106;
/// Code: a tree has more entries than the caller wanted.
inline constexpr int DBErrorTreeTooLarge = 107;
/// Code: an account was forgotten here, but its authorization at the service could not be ended.
inline constexpr int DBErrorNotRevoked = 105;
/// Code: the sign-in was not finished within its time limit.
inline constexpr int DBErrorSignInExpired = 1001;

/// Keys of an error's user info: texts, except the last three (numbers).
inline constexpr std::string_view DBErrorSummaryKey = "error_summary";
inline constexpr std::string_view DBErrorTagKey = "tag";  // the service's word for the reason: "not_found"
inline constexpr std::string_view DBErrorRequestIdKey = "request_id";
inline constexpr std::string_view DBErrorPathKey = "path";
inline constexpr std::string_view DBErrorUploadIdKey = "upload_id";
/// Of the version that stands at the path now, after an upload that arrived damaged replaced another one.
inline constexpr std::string_view DBErrorStoredRevKey = "stored_rev";
inline constexpr std::string_view DBErrorHttpStatusKey = "http_status";
inline constexpr std::string_view DBErrorRetryAfterKey = "retry_after";  // seconds
inline constexpr std::string_view DBErrorOffsetKey = "offset";           // bytes
