#pragma once
#include <optional>
#include <string>
#include <vector>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// A folder of this user's own, held open: what happens in it happens in that folder, whatever is put in its
/// place meanwhile, and no link is followed. Names are single components. Errors are in NSPOSIXErrorDomain.
/// Any thread; calls block for the disk.
class OwnFolder {
 public:
  /// Nothing when there is no folder (ENOENT), something else or a link in its place (ENOTDIR), or when it
  /// belongs to another user (EPERM). Folders above it may be links.
  static std::optional<OwnFolder> open(const std::string& path, NSErrorRef* error = nullptr);

  int descriptor() const noexcept { return folder_.number(); }
  /// The names in it, in no order, without "." and "..".
  std::vector<std::string> names() const;
  /// Makes a folder of mode 0700. 0, or the errno value.
  int makeFolder(const std::string& name) const;
  /// Removes a regular file; anything else stays. 0, or the errno value.
  int removeFile(const std::string& name) const;
  /// Removes whatever has that name, a folder with everything in it; what a link points to stays. 0, or the
  /// errno value.
  int removeTree(const std::string& name) const;

 private:
  explicit OwnFolder(Descriptor folder) : folder_(std::move(folder)) {}

  Descriptor folder_;
};
