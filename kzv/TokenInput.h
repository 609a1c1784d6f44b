#pragma once
#include <optional>
#include <string>

#include "foundation/NSError.h"

namespace kzv::cli {

/// Reads an access token, or a token response as JSON, from standard input: at most 64 KiB, without the white
/// space around it. On a terminal it prompts for one line and does not echo it. Nothing with an error when
/// there is no token, or too much input. The text is a secret: the caller must show and log it nowhere.
/// Blocks.
std::optional<std::string> readToken(NSErrorRef* error);

}  // namespace kzv::cli
