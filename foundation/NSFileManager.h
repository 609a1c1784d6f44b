#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/NSError.h"
#include "foundation/NSURL.h"

/// Attribute keys shared by local and remote items.
inline constexpr std::string_view NSFileSize = "NSFileSize";
inline constexpr std::string_view NSFileModificationDate = "NSFileModificationDate";
inline constexpr std::string_view NSFileType = "NSFileType";
inline constexpr std::string_view NSFileTypeDirectory = "NSFileTypeDirectory";
inline constexpr std::string_view NSFileTypeRegular = "NSFileTypeRegular";
inline constexpr std::string_view NSFileSystemSize = "NSFileSystemSize";
inline constexpr std::string_view NSFileSystemFreeSize = "NSFileSystemFreeSize";

/// The local disk. Calls block for as long as the disk takes; errors are in NSPOSIXErrorDomain. A path that
/// holds a NUL is refused (EINVAL): the system would take it for the shorter one before it. Any thread; the
/// same holds for the functions below.
class NSFileManager {
 public:
  static NSFileManager& defaultManager();

  /// Removes a file or a folder with everything in it; a link goes, what it points to stays, also when the
  /// path ends in a slash. What does not exist is an error.
  bool removeItemAtPath(const std::string& path, NSErrorRef* error = nullptr);
  bool removeItemAtURL(const NSURL& url, NSErrorRef* error = nullptr);
  /// Creates a folder (mode 0777 less the umask) and, when asked, what is missing above it; then an existing
  /// folder is fine.
  bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                             NSErrorRef* error = nullptr);
  /// Size in bytes of the regular file at `path`.
  std::optional<std::uint64_t> fileSize(const std::string& path, NSErrorRef* error = nullptr);
};

/// Writes a whole file, in place (not atomically): on failure part of it may be written.
bool writeFile(const std::string& path, std::string_view bytes, NSErrorRef* error = nullptr);
/// Replaces a whole file so that a reader, or the next start after a power cut, finds the old bytes or the
/// new ones and nothing between: written beside it under a hidden name with `mode` (the umask does not
/// count), synced, renamed over it, folder synced. On failure the old file stands and nothing else is left.
bool writeFileAtomically(const std::string& path, std::string_view bytes, unsigned mode,
                         NSErrorRef* error = nullptr);
/// Whether a name is one that writeFileAtomically gives to a file that it is writing: what a process that was
/// killed meanwhile leaves behind.
bool isAtomicWriteName(std::string_view name);
/// The bytes of a regular file of at most `limitBytes`; a larger file (EFBIG), a folder (EISDIR), a pipe or
/// device (EINVAL) is an error. Never hangs.
std::optional<std::string> readFile(const std::string& path, std::uint64_t limitBytes,
                                    NSErrorRef* error = nullptr);
