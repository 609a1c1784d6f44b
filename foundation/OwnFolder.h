#pragma once
#include <optional>
#include <string>
#include <vector>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// An open folder owned by this user. Operations stay in this folder even if its path is replaced, and do not
/// follow symbolic links. Names are single components. Errors are in NSPOSIXErrorDomain. Any thread; calls
/// block for the disk.
class OwnFolder {
 public:
  /// Nothing when it is missing (ENOENT), is a symbolic link or not a folder (ENOTDIR), or belongs to another
  /// user (EPERM). Its parents may be symbolic links.
  static std::optional<OwnFolder> open(const std::string& path, NSErrorRef* error = nullptr);

  const Descriptor& descriptor() const noexcept { return folder_; }
  /// The names in it, in no particular order, without "." and "..".
  std::vector<std::string> names() const;
  /// Creates a folder of mode 0700. 0, or the errno value.
  int makeFolder(const std::string& name) const;
  /// Removes a regular file; EINVAL for anything else. 0, or the errno value.
  int removeFile(const std::string& name) const;
  /// Removes an item: a folder with its contents, a symbolic link without its target. 0, or the errno value.
  int removeTree(const std::string& name) const;

 private:
  explicit OwnFolder(Descriptor folder) : folder_(std::move(folder)) {}

  Descriptor folder_;
};
