#pragma once
#include <optional>
#include <string>
#include <vector>

#include "foundation/Descriptor.h"
#include "foundation/NSError.h"

/// An open folder that belongs to this user. Operations stay in this folder even if another one is put in its
/// place, and follow no links. Names are single components. Errors are in NSPOSIXErrorDomain. Any thread;
/// calls block for the disk.
class OwnFolder {
 public:
  /// Nothing when it is missing (ENOENT), is a link or no folder (ENOTDIR), or belongs to another user
  /// (EPERM). Its parents may be links.
  static std::optional<OwnFolder> open(const std::string& path, NSErrorRef* error = nullptr);

  const Descriptor& descriptor() const noexcept { return folder_; }
  /// The names in it, in no particular order, without "." and "..".
  std::vector<std::string> names() const;
  /// Makes a folder of mode 0700. 0, or the errno value.
  int makeFolder(const std::string& name) const;
  /// Removes a regular file; anything else stays. 0, or the errno value.
  int removeFile(const std::string& name) const;
  /// Removes an item, a folder with everything in it, a link without its target. 0, or the errno value.
  int removeTree(const std::string& name) const;

 private:
  explicit OwnFolder(Descriptor folder) : folder_(std::move(folder)) {}

  Descriptor folder_;
};
