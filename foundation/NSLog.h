#pragma once
#include <string_view>

/// The process's log on stderr: one line per message with time, level, function and text. Any thread; lines
/// are never interleaved, and control characters are written as "\\x0A". Secrets (after "access_token=",
/// "Bearer ", ..., or shaped like a token) are replaced by "***".
enum class NSLogLevel { debug, info, warning, error, off };

/// @param function  the origin of the message; not searched for secrets. Blocks while the line is being
/// written. A line that cannot be written is lost.
void NSLog(NSLogLevel level, std::string_view function, std::string_view message);

/// Lines below `level` are dropped; by default below warning.
void setLogLevel(NSLogLevel level);
