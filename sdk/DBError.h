#pragma once
#include <string_view>

/// Errors of the service and of the connection to it. Codes: 400 malformed or disallowed name, 401 token
/// invalid, 403 conflict or no permission, 404 not found (or the other kind of item), 406 too many files, 415
/// no preview of this kind, 503 too many requests or writes, 507 no space; for other answers the HTTP status;
/// for transport failures libcurl's code (CURLE_…), negated.
inline constexpr std::string_view DBErrorDomain = "dropbox.com";

/// Code: the browser sign-in has not been approved yet; retry after the next activation.
inline constexpr int DBErrorAuthorizationPending = 1000;
/// Code: an invalid answer from the service.
inline constexpr int DBErrorInvalidResponse = 101;
/// Code: the account is not linked, or no longer.
inline constexpr int DBErrorNotLinked = 102;
/// Code: a local path that the request would read or write is not usable.
inline constexpr int DBErrorLocalFile = 103;
/// Code: KZV_SERVICE_URL has an address that must not be used.
inline constexpr int DBErrorServiceAddress = 104;

/// Code: a local file changed during its upload. Nothing was stored.
inline constexpr int DBErrorFileChanged = 106;
/// Code: a tree has more entries than the caller's limit.
inline constexpr int DBErrorTreeTooLarge = 107;
/// Code: an account was unlinked here, but its authorization could not be revoked at the service.
inline constexpr int DBErrorNotRevoked = 105;
/// Code: the sign-in was not finished within its time limit.
inline constexpr int DBErrorSignInExpired = 1001;

/// Keys of an error's user info: texts, except the last three (numbers).
inline constexpr std::string_view DBErrorSummaryKey = "error_summary";
inline constexpr std::string_view DBErrorTagKey = "tag";  // the service's name for the reason: "not_found"
inline constexpr std::string_view DBErrorRequestIdKey = "request_id";
inline constexpr std::string_view DBErrorPathKey = "path";
inline constexpr std::string_view DBErrorUploadIdKey = "upload_id";
/// The revision now at the path, after a damaged upload replaced another one.
inline constexpr std::string_view DBErrorStoredRevKey = "stored_rev";
inline constexpr std::string_view DBErrorHttpStatusKey = "http_status";
inline constexpr std::string_view DBErrorRetryAfterKey = "retry_after";  // seconds
inline constexpr std::string_view DBErrorOffsetKey = "offset";           // bytes
