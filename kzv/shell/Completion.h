#pragma once
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kzv/VerbSyntax.h"

namespace kzv::cli {

/// A completion of the word before the cursor.
struct Completion {
  std::size_t start = 0;             // byte offset of the word in the line
  std::string replacement;           // for the text from `start` to the cursor; quoted as needed
  std::vector<std::string> choices;  // possible names, if the replacement adds nothing
};

/// One possible name.
struct CompletionName {
  std::string name;
  bool isFolder = false;
};
/// Returns the names of a kind; for paths, those in `folder` (as typed, with a slash at its end, "~/"
/// expanded; "": the current one). May block for a limited time.
using CompletionNames =
    std::function<std::vector<CompletionName>(ArgumentKind kind, const std::string& folder)>;

/// Completes the word at the end of `line`, which ends at the cursor: the verb, an option, or an argument of
/// the kind that the verb declares there. Names match case-insensitively if none matches exactly; names that
/// cannot be typed (control characters, invalid UTF-8) never match. Nothing when no name matches.
/// @param options  the options of every line (shellLineSyntax()).
std::optional<Completion> complete(std::string_view line, const std::vector<VerbSyntax>& verbs,
                                   const VerbSyntax& options, const CompletionNames& names);

}  // namespace kzv::cli
