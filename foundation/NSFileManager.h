#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Descriptor.h"
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

/// The local disk. Calls block for the disk; errors are in NSPOSIXErrorDomain. A path with a NUL is refused
/// (EINVAL), because the system would truncate it there. Any thread. The same holds for the functions below.
class NSFileManager {
 public:
  static NSFileManager& defaultManager();

  /// Removes a file or a folder with its contents. A symbolic link is removed itself, even when the path ends
  /// in a slash. A missing item is an error.
  bool removeItemAtPath(const std::string& path, NSErrorRef* error = nullptr);
  bool removeItemAtURL(const NSURL& url, NSErrorRef* error = nullptr);
  /// Creates a folder (mode 0777 minus the umask), optionally with missing parents; with them an existing
  /// folder is no error.
  bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                             NSErrorRef* error = nullptr);
  /// Size in bytes of the regular file at `path`.
  std::optional<std::uint64_t> fileSize(const std::string& path, NSErrorRef* error = nullptr);
};

/// Writes a whole file in place, not atomically: on failure it may be partly written.
bool writeFile(const std::string& path, std::string_view bytes, NSErrorRef* error = nullptr);
/// Replaces a whole file so that a reader, even after a power failure, finds either the old bytes or the new
/// ones: writes a hidden temporary file beside it with exactly `mode`, syncs and renames it, and syncs the
/// folder. On failure the old file stays and the temporary one is removed.
bool writeFileAtomically(const std::string& path, std::string_view bytes, unsigned mode,
                         NSErrorRef* error = nullptr);
/// Whether `name` is a temporary name of writeFileAtomically; a killed process may leave such a file.
bool isAtomicWriteName(std::string_view name);
/// The bytes of a regular file of at most `limitBytes`; a larger file (EFBIG), a folder (EISDIR), a pipe or
/// device (EINVAL) is an error. Never blocks on a pipe or device.
std::optional<std::string> readFile(const std::string& path, std::uint64_t limitBytes,
                                    NSErrorRef* error = nullptr);
/// The next `sizeBytes` bytes of an open file, fewer at its end; nothing, with errno, when reading fails.
std::optional<std::string> readAll(const Descriptor& file, std::size_t sizeBytes);
