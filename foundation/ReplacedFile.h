#pragma once
#include <string>

#include <sys/stat.h>
#include <unistd.h>

/// Gives the open file `file`, about to be renamed to `path`, the permissions of the existing regular file
/// there if this user owns it: a new version must not be more accessible than the old one. Otherwise does
/// nothing. Any thread; blocks for the disk.
inline void takePermissionsFrom(const std::string& path, int file) {
  constexpr mode_t permissions = 0777;
  struct stat replaced {};
  if (::lstat(path.c_str(), &replaced) != 0) return;
  if (S_ISREG(replaced.st_mode) && replaced.st_uid == ::geteuid())
    ::fchmod(file, replaced.st_mode & permissions);
}
