#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

namespace kzv::copy {

/// Places on the local disk that are about to be written. Any thread; blocks for the disk. Errors are in
/// NSPOSIXErrorDomain.

/// What becomes of a link at a place where a file is to be written. A person who names one means what it
/// leads to; one that lies in a folder that is being filled may lead anywhere.
enum class LinkAtTarget { follow, refuse };

/// Where a file for `path` really goes: `path` itself, or the file that a link there leads to. Nothing when
/// there is something else than a file (EISDIR; EINVAL for a device, a pipe or a socket), for a link that is
/// refused (ELOOP) or leads nowhere (ENOENT), and when the disk cannot hold such a name (ENAMETOOLONG or its
/// own reason): so that this is found before anything is fetched.
std::optional<std::string> fileTarget(const std::string& path, LinkAtTarget link, NSErrorRef* error);

/// Makes `path` a folder, and whatever is missing above it: each with mode 0700, for its owner alone. Folders
/// that exist stay as they are. False when one cannot be made (ENOTDIR: a file is in the way).
bool makePrivateFolders(const std::string& path, NSErrorRef* error);

/// `name`, made shorter where the disk that holds `folder` could not hold it: cut between two characters,
/// with its extension.
std::string fittingName(const std::string& name, const std::string& folder);

}  // namespace kzv::copy
