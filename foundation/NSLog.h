#pragma once
#include <string_view>

/// Diagnostics of the process: one line each with time, level, function and message, to stderr or a file. Any
/// thread; a line is never torn. Texts that look like a token, a code or a verifier are blanked before they
/// are written.
enum class NSLogLevel { debug, info, warning, error, off };

void NSLog(NSLogLevel level, std::string_view function, std::string_view message);

/// Lines below `level` are dropped. At the start: warning.
void setLogLevel(NSLogLevel level);
/// Further lines go to this file (created with mode 0600, appended to), or back to stderr when `path` is
/// empty or cannot be opened; then false.
bool setLogFile(std::string_view path);
