#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kzv::sdk {

/// Limits of what is accepted from the service. Each is far above what an honest service needs, but keeps a
/// faulty one from filling the memory or blocking a caller for ever. A download's body is limited by its
/// announced size, repetitions by RetryPolicy.h.
namespace servicelimits {

/// Size of an answer that is kept in memory. A page of 2,000 entries takes about 1 MB; with paths of 4 KB,
/// twice each, it could take 20.
inline constexpr std::size_t answerBytes = 32UL * 1024 * 1024;

/// Size of a preview. One of 1024x768 pixels takes some hundred KB as JPEG.
inline constexpr std::int64_t previewBytes = 8LL * 1024 * 1024;

/// Memory of a parsed answer. Records take about three times their text; "[],[],[]" takes ten times.
inline constexpr std::size_t parsedBytes = 128UL * 1024 * 1024;

/// Entries of one folder. The largest folders known have some 100,000; a million takes about 500 MB.
inline constexpr std::size_t folderEntries = 1'000'000;

/// Maximum number of changes in one run of the change feed; the next poll continues a run that was cut off.
inline constexpr std::size_t changesAtOnce = 10'000'000;

/// Consecutive pages without entries. The service omits entries that the caller may not see, so a few are
/// normal.
inline constexpr std::size_t emptyPages = 100;

/// Pages that are buffered until the record of the listed folder has arrived.
inline constexpr std::size_t waitingPages = 4;

/// Components of a path. A folder that contains itself would be followed for ever; the service's paths have
/// at most 4,096 characters.
inline constexpr std::size_t pathComponents = 512;

/// A small request (no file in either direction) from its start to the last byte of its answer. Moving a
/// folder of 10,000 items takes the service about a minute, a full page 1 MB at 64 kbit/s two.
inline constexpr std::chrono::seconds smallRequest{300};

/// A transfer below this average rate counts as silent: a byte now and then must not keep it alive.
inline constexpr long slowestTransferBytesPerSecond = 64;

/// The longest wait requested by the service that is passed on to callers; longer ones are clamped.
inline constexpr std::int64_t longestWaitSeconds = 24LL * 3600;

/// Length of a text from the service that is shown to people, in characters.
inline constexpr std::size_t textCharacters = 300;

/// Lifetime of a token. The service issues them for four hours.
inline constexpr std::int64_t tokenLifetimeSeconds = 10LL * 365 * 24 * 3600;

}  // namespace servicelimits

}  // namespace kzv::sdk
