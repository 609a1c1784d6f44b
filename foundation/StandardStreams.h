#pragma once
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

/// Opens those of the descriptors 0, 1 and 2 that the program was started without, on /dev/null. Else the
/// next file that is opened takes such a number, and what is meant for a terminal is written into it. To be
/// called first in main, before other threads and files.
inline void openMissingStandardStreams() {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (::fcntl(number, F_GETFD) >= 0) continue;
    // open takes the lowest number that is free: this one, since those below are in use.
    if (::open("/dev/null", O_RDWR) != number) std::_Exit(EXIT_FAILURE);
  }
}
