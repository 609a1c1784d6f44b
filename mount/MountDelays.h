#pragma once
#include <chrono>
#include <vector>

namespace kzv::mount {

/// The times that a mount waits. Tests shorten them.
struct MountDelays {
  /// Between the attempts of one call of the volume whose failure may be temporary.
  std::vector<std::chrono::milliseconds> retries{std::chrono::milliseconds(100), std::chrono::seconds(1)};
  /// Before a file that could not be uploaded is tried again; doubled after each failure, up to the longest.
  std::chrono::milliseconds firstUploadRetry = std::chrono::seconds(15);
  std::chrono::milliseconds longestUploadRetry = std::chrono::minutes(5);
  /// Before a file that was created and closed without a byte is uploaded: often it only tests whether the
  /// folder can be written to, or the next program fills it.
  std::chrono::milliseconds emptyFile = std::chrono::seconds(1);
  /// Between two rounds of listing changed folders again: changes come in bursts.
  std::chrono::milliseconds refresh{100};
  /// Before a changed folder that could not be listed is listed again; doubled after each failure.
  std::chrono::milliseconds firstRefreshRetry = std::chrono::seconds(1);
  std::chrono::milliseconds longestRefreshRetry = std::chrono::minutes(1);
  /// A folder that this mount is changing is listed again only after so long without a change...
  std::chrono::milliseconds quietFolder{300};
  /// ... or so long after the notice, since other devices' changes must be shown, too.
  std::chrono::milliseconds longestRefreshDelay{2000};
  /// How long an answer about free space is good: desktops ask all the time.
  std::chrono::milliseconds spaceAge = std::chrono::seconds(30);
};

}  // namespace kzv::mount
