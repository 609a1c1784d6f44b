#pragma once
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

/// Opens closed standard descriptors (0, 1, 2) on /dev/null. Otherwise the next opened file would get such a
/// number and receive terminal output. To be called first in main.
inline void openMissingStandardStreams() {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (::fcntl(number, F_GETFD) >= 0) continue;
    // open takes the lowest number that is free: this one, since those below are in use.
    if (::open("/dev/null", O_RDWR) != number) std::_Exit(EXIT_FAILURE);
  }
}
