#pragma once
#include <string_view>

/// Diagnostics of the process: one line each with time, level, function and message, to stderr or a file. Any
/// thread; a line is never torn, and control characters in it are written as "\\x0A". What follows the name
/// of a secret ("access_token=", "Bearer ", ...) or looks like a token is replaced by "***" before it is
/// written.
enum class NSLogLevel { debug, info, warning, error, off };

/// @param function  who speaks; not searched for secrets.
/// Blocks while the line is being written. A line that cannot be written is lost.
void NSLog(NSLogLevel level, std::string_view function, std::string_view message);

/// Lines below `level` are dropped. At the start: warning.
void setLogLevel(NSLogLevel level);
/// Further lines go to this file (created with mode 0600, appended to), or back to stderr when `path` is
/// empty or cannot be opened; then false.
bool setLogFile(std::string_view path);
