#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kzv::sdk {

/// What is accepted from the service, whatever it sends. Each bound lies far above what an honest service
/// needs and below what would fill the memory or keep a caller waiting for ever. The bounds of a download's
/// body are the announced size's, those of repeated tries stand in RetryPolicy.h.
namespace servicelimits {

/// Of an answer that is kept in memory. A page of 2,000 entries takes about 1 MB; with paths of 4 KB, twice
/// each, it could take 20.
inline constexpr std::size_t answerBytes = 32UL * 1024 * 1024;

/// Of a preview. One of 1024x768 pixels takes some hundred KB as JPEG.
inline constexpr std::int64_t previewBytes = 8LL * 1024 * 1024;

/// Of an answer once it is parsed. Records take about three times their text; "[],[],[]" takes ten times.
inline constexpr std::size_t parsedBytes = 128UL * 1024 * 1024;

/// Entries of one folder. The largest folders known have some 100,000; a million takes about 500 MB.
inline constexpr std::size_t folderEntries = 1'000'000;

/// Maximum number of changes in one run of the change feed; the next poll continues a run that was cut off.
inline constexpr std::size_t changesAtOnce = 10'000'000;

/// Consecutive pages without an entry that nevertheless promise more. The service leaves out what the caller
/// may not see, so a few are honest.
inline constexpr std::size_t emptyPages = 100;

/// Pages that are kept unread, because the record of the listed folder has not come yet.
inline constexpr std::size_t waitingPages = 4;

/// Components of a path. A folder that contains itself would be followed for ever; the service's own paths
/// have 4,096 characters at most.
inline constexpr std::size_t pathComponents = 512;

/// A small request (no file in either direction) from its start to the last byte of its answer. Moving a
/// folder of 10,000 items takes the service about a minute, a full page 1 MB at 64 kbit/s two.
inline constexpr std::chrono::seconds smallRequest{300};

/// Below so many bytes a second, averaged over the time that silence is endured, a transfer counts as silent:
/// one byte now and then must not keep it alive.
inline constexpr long slowestTransferBytesPerSecond = 64;

/// A wait that the service asks for and that is passed on to callers; more is cut down to this.
inline constexpr std::int64_t longestWaitSeconds = 24LL * 3600;

/// Of a text of the service that is shown to people, in characters.
inline constexpr std::size_t textCharacters = 300;

/// Of a token. The service gives four hours.
inline constexpr std::int64_t tokenLifetimeSeconds = 10LL * 365 * 24 * 3600;

}  // namespace servicelimits

}  // namespace kzv::sdk
