#pragma once

/// Who may read a file or folder that is made on this computer.
enum class LocalAccess {
  byUmask,   // as the umask decides: the user's own, from the start
  ownerOnly  // 0600 for files, 0700 for folders, whatever the umask says
};
