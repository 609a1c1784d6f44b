#pragma once
#include <string>

#include <sys/stat.h>
#include <unistd.h>

/// Gives the open file `file`, which is about to take the name `path`, the permissions of the file of the
/// same owner that is there: what its owner had closed to others must not be opened by a new version. Without
/// such a file, nothing. Any thread; blocks for the disk.
inline void takePermissionsFrom(const std::string& path, int file) {
  constexpr mode_t permissions = 0777;
  struct stat replaced {};
  if (::lstat(path.c_str(), &replaced) != 0) return;
  if (S_ISREG(replaced.st_mode) && replaced.st_uid == ::geteuid())
    ::fchmod(file, replaced.st_mode & permissions);
}
