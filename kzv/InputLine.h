#pragma once
#include <optional>
#include <string>

namespace kzv::cli {

/// Standard input, read so that a stop is noticed while nobody types. On the verb's thread.

/// Waits until there is something to read, or the end of the input; false when a stop is asked for before.
bool waitForInput();
/// One line without its end; what follows it is left unread. Nothing at the end of the input or on a stop.
std::optional<std::string> readInputLine();

}  // namespace kzv::cli
