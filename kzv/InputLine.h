#pragma once
#include <optional>
#include <string>

namespace kzv::cli {

/// Reading of standard input that a stop signal interrupts. On the verb's thread.

/// Blocks until there is input or its end; false when a stop was requested.
bool waitForInput();
/// One line without its line feed; input after it stays unread. Nothing at the end of the input or on a stop.
/// Blocks.
std::optional<std::string> readInputLine();

}  // namespace kzv::cli
