#pragma once
#include <string_view>

/// One line of diagnostics: what happened, and the function that says so, e.g. "initialize()". Shown with
/// --verbose or in the log file. Never pass a token, a code or a verifier. Any thread.
void DLog(std::string_view message, std::string_view function);
/// The same for what a person should notice although no operation failed: always shown unless logging is off.
void DLogWarning(std::string_view message, std::string_view function);
