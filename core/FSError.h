#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/NSError.h"

/// Domain of the errors of FSPlugin operations; the codes are FSErrorCode. The volume's original error (its
/// service's, for instance) is under NSUnderlyingErrorKey and has the same text.
inline constexpr std::string_view FSErrorDomain = "FSErrorDomain";
/// User info key of a `busy` error: after how many seconds to try again (a number). Absent when unknown.
inline constexpr std::string_view FSErrorRetryAfterKey = "FSErrorRetryAfter";

/// What went wrong, as far as a host can act on it. The numbers are shown to people and never change.
enum class FSErrorCode : std::int64_t {
  notFound = 1,
  exists = 2,     // something else has the name
  isFolder = 3,   // a file was asked for
  notFolder = 4,  // a folder was asked for
  notEmpty = 5,
  nameRefused = 6,  // the volume cannot hold an item of this name
  denied = 7,       // sign in again, or the account may not do this
  noSpace = 8,
  tooLarge = 9,   // too many bytes or items for the volume
  busy = 10,      // works later
  line = 11,      // no connection, a time-out, or the service failed: may work when tried again
  damaged = 12,   // the received bytes are not those announced; may work when tried again
  conflict = 13,  // another version is there than the one named
  stopped = 14,   // by the user; usually as CanceledByUserErrorDomain
  unsupported = 15,
  internal = 16,
};

/// An error of FSErrorDomain.
/// @param text        for people.
/// @param underlying  what led to it; may be empty.
/// @param retryAfter  see FSErrorRetryAfterKey.
NSErrorRef fsError(FSErrorCode code, std::string text, NSErrorRef underlying = nullptr,
                   std::optional<std::chrono::seconds> retryAfter = std::nullopt);

/// The code of a failed FSPlugin operation's error. Translates NSPOSIXErrorDomain (the local disk's errors)
/// and CanceledByUserErrorDomain; any other domain is `internal`. A missing error is `notFound`, which is
/// what failure without an error means.
FSErrorCode fsErrorCode(const NSErrorRef& error);
/// How long a `busy` error asks to wait, if it says so.
std::optional<std::chrono::seconds> fsErrorRetryAfter(const NSErrorRef& error);
