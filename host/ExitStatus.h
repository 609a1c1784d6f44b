#pragma once

/// What the program's exit status tells a script.
enum class ExitStatus : int {
  done = 0,
  failed = 1,     // the operation failed
  usage = 2,      // the command line or the standard input is wrong
  noAccount = 3,  // no such account, or none linked
  stopped = 130,  // stopped by the user
};
