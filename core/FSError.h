#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/NSError.h"

/// Domain of the errors of FSPlugin operations; the codes are FSErrorCode. The original error, for instance
/// of the volume's service, is under NSUnderlyingErrorKey and has the same text.
inline constexpr std::string_view FSErrorDomain = "FSErrorDomain";
/// User info key of a `busy` error: the number of seconds to wait before a retry. Absent when unknown.
inline constexpr std::string_view FSErrorRetryAfterKey = "FSErrorRetryAfter";

/// The kinds of failure that a host can distinguish. The numbers are shown to people and never change.
enum class FSErrorCode : std::int64_t {
  notFound = 1,
  exists = 2,     // the name is taken
  isFolder = 3,   // a file was expected
  notFolder = 4,  // a folder was expected
  notEmpty = 5,
  nameRefused = 6,  // the volume does not allow this name
  denied = 7,       // sign in again, or the account has no permission
  noSpace = 8,
  tooLarge = 9,     // too many bytes or items for the volume
  busy = 10,        // retry later
  connection = 11,  // no connection, a time-out, or the service failed: a retry may work
  damaged = 12,     // the received bytes are not those announced: a retry may work
  conflict = 13,    // the current version is not the requested one
  stopped = 14,     // by the user; usually as CanceledByUserErrorDomain
  unsupported = 15,
  internal = 16,
};

/// An error of FSErrorDomain.
/// @param text        for people.
/// @param underlying  its cause; may be null.
/// @param retryAfter  see FSErrorRetryAfterKey.
NSErrorRef fsError(FSErrorCode code, std::string text, NSErrorRef underlying = nullptr,
                   std::optional<std::chrono::seconds> retryAfter = std::nullopt);

/// The code of a failed FSPlugin operation's error. Translates NSPOSIXErrorDomain (the local disk's errors)
/// and CanceledByUserErrorDomain; any other domain is `internal`. Null is `notFound`, the meaning of failure
/// without an error.
FSErrorCode fsErrorCode(const NSErrorRef& error);
/// How long to wait before a retry after a `busy` error, if known.
std::optional<std::chrono::seconds> fsErrorRetryAfter(const NSErrorRef& error);
