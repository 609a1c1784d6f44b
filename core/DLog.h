#pragma once
#include <string_view>

/// Logs one line of diagnostics. `function` is the caller's name, e.g. "initialize()". Shown with --verbose
/// or in the log file. Never pass a token, a code or a verifier. Any thread.
void DLog(std::string_view message, std::string_view function);
/// The same for warnings, which are shown unless logging is off.
void DLogWarning(std::string_view message, std::string_view function);
