#pragma once
#include <chrono>
#include <vector>

namespace kzv::mount {

/// The times that a mount waits. Tests shorten them.
struct MountDelays {
  /// Between the attempts of one call of the volume whose failure may be temporary.
  std::vector<std::chrono::milliseconds> retries{std::chrono::milliseconds(100), std::chrono::seconds(1)};
  /// Before a failed upload is retried; doubled after each failure, up to the longest.
  std::chrono::milliseconds firstUploadRetry = std::chrono::seconds(15);
  std::chrono::milliseconds longestUploadRetry = std::chrono::minutes(5);
  /// Before a file that was created and closed empty is uploaded: often it only tests whether the folder is
  /// writable, or is filled a moment later.
  std::chrono::milliseconds emptyFile = std::chrono::seconds(1);
  /// Between two rounds of listing changed folders: changes come in bursts.
  std::chrono::milliseconds refresh{100};
  /// Before a failed listing of a changed folder is retried; doubled after each failure.
  std::chrono::milliseconds firstRefreshRetry = std::chrono::seconds(1);
  std::chrono::milliseconds longestRefreshRetry = std::chrono::minutes(1);
  /// A folder that this mount is changing is listed again only after this long without a change...
  std::chrono::milliseconds quietFolder{300};
  /// ... or this long after the notice, since other devices' changes must be shown, too.
  std::chrono::milliseconds longestRefreshDelay{2000};
  /// A program that opens two sub-folders of one folder within this time walks through the tree.
  std::chrono::milliseconds walkWindow = std::chrono::seconds(3);
  /// How long free space is cached: desktops ask for it often.
  std::chrono::milliseconds spaceAge = std::chrono::seconds(30);
};

}  // namespace kzv::mount
