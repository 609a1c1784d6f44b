#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

namespace kzv::cli {

/// Reads an access token, or a token answer as JSON, from standard input: at most 64 KiB, without the white
/// space around it. On a terminal it asks for one line and does not echo what is typed. Nothing with an error
/// when there is none, or too much. The text is a secret: the caller hands it on and shows it nowhere.
/// Blocks.
std::optional<std::string> readToken(NSErrorRef* error);

}  // namespace kzv::cli
