#pragma once
#include <string_view>

/// Diagnostics of the process on stderr: one line each with time, level, function and message. Any thread;
/// lines are never interleaved, and control characters are written as "\\x0A". What follows the name of a
/// secret ("access_token=", "Bearer ", ...) or looks like a token is replaced by "***".
enum class NSLogLevel { debug, info, warning, error, off };

/// @param function  where the message comes from; not searched for secrets.
/// Blocks while the line is being written. A line that cannot be written is lost.
void NSLog(NSLogLevel level, std::string_view function, std::string_view message);

/// Lines below `level` are dropped; by default below warning.
void setLogLevel(NSLogLevel level);
