#pragma once
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kzv/VerbSyntax.h"

namespace kzv::cli {

/// What can take the place of the word before the cursor.
struct Completion {
  std::size_t start = 0;    // of the word, in bytes from the line's beginning
  std::string replacement;  // for what stands between there and the cursor; quoted as the line needs it
  std::vector<std::string>
      choices;  // names to choose from when the replacement says no more than the line did
};

/// One thing that a word can be.
struct CompletionName {
  std::string name;
  bool isFolder = false;
};
/// Gives the names of a kind; for paths those in the folder that was typed (with the slash at its end, ""
/// where there is none, "~/" expanded). May block, within bounds.
using CompletionNames =
    std::function<std::vector<CompletionName>(ArgumentKind kind, const std::string& folder)>;

/// Completes the word at the end of `line`, which ends at the cursor: the verb, an option, or an argument of
/// the kind that the verb declares at its place. Names that differ only in letter case count when no other
/// does; names that cannot be typed (control characters, no UTF-8) do not. Nothing when nothing fits.
/// @param options  the options of every line, as a verb's syntax without a name.
std::optional<Completion> complete(std::string_view line, const std::vector<VerbSyntax>& verbs,
                                   const VerbSyntax& options, const CompletionNames& names);

}  // namespace kzv::cli
