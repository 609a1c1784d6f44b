#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

namespace kzv::copy {

/// Checks of local paths that are about to be written. Any thread; blocks for the disk. Errors are in
/// NSPOSIXErrorDomain.

/// How to treat a link at the target path. One that a person names is followed; one inside a folder that is
/// being copied to may lead anywhere.
enum class LinkAtTarget { follow, refuse };

/// The path to write a file to: `path`, or the target of a link there. Nothing if it is not a file (EISDIR;
/// EINVAL for a device, a pipe or a socket), for a link that is refused (ELOOP) or broken (ENOENT), and when
/// the disk does not allow the name (ENAMETOOLONG or another value). Called before anything is downloaded.
std::optional<std::string> fileTarget(const std::string& path, LinkAtTarget link, NSErrorRef* error);

/// Creates the folder `path` and missing parents, each with mode 0700. Existing folders are not changed.
/// False when one cannot be created (ENOTDIR: a file is in the way).
bool makePrivateFolders(const std::string& path, NSErrorRef* error);

/// `name`, shortened if it is too long for the disk of `folder`: cut between two characters, keeping its
/// extension.
std::string fittingName(const std::string& name, const std::string& folder);

}  // namespace kzv::copy
