#pragma once

/// The permissions of a file or folder that is created on this computer.
enum class LocalAccess {
  byUmask,   // the default permissions minus the umask
  ownerOnly  // 0600 for files, 0700 for folders
};
