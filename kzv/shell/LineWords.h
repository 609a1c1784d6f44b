#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"

namespace kzv::cli {

/// The kind of quotes around a position of a line.
enum class Quote { none, single, doubled };

/// A line of the shell, possibly unfinished, split into words. Blanks separate words; backslashes, single and
/// double quotes work as in a POSIX shell; "#" at the beginning of a word starts a comment. Only an unquoted
/// "~" or "~/" at the beginning of a word is expanded. Any thread.
struct LineWords {
  struct Word {
    std::string text;              // without quotes and backslashes; "~" as typed
    std::size_t start = 0;         // byte offset in the line
    bool beginsInHome = false;     // its first component is an unquoted "~"
    std::string expanded() const;  // "~" replaced by the home folder
  };
  std::vector<Word> words;
  bool endsInWord = false;  // no blank after the last one
  bool endsInComment = false;
  bool endsInBackslash = false;  // an unfinished escape
  Quote openQuote = Quote::none;

  static LineWords from(std::string_view line);
};

/// The words of a complete line, `~` expanded; nothing with an error (KZVHostErrorDomain, badInput) when it
/// ends in an open quote or a backslash.
std::optional<std::vector<std::string>> splitLine(std::string_view line, NSErrorRef* error);

/// `text` escaped as one word, or part of one, inside `quote` (which stays open).
/// @param beginsWord  at the beginning of a word "#" and "~" are escaped, too.
std::string quoted(std::string_view text, Quote quote, bool beginsWord = true);

}  // namespace kzv::cli
