#pragma once

namespace kzv::cli {

/// The program's exit statuses.
enum class ExitStatus : int {
  done = 0,
  failed = 1,     // the operation failed
  usage = 2,      // the command line or the standard input is wrong
  noAccount = 3,  // no such account, or none linked
  stopped = 130,  // stopped by the user
};

}  // namespace kzv::cli
