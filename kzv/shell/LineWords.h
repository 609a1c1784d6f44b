#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSError.h"

namespace kzv::cli {

/// The quote that a place of a line stands in.
enum class Quote { none, single, doubled };

/// A line of the shell, taken apart as far as it goes. Blanks separate words; a backslash, single and double
/// quotes work as in a POSIX shell; "#" at the beginning of a word begins a comment. Nothing is expanded but
/// an unquoted "~" or "~/" at the beginning of a word. Any thread.
struct LineWords {
  struct Word {
    std::string text;              // without quotes and backslashes; "~" as typed
    std::size_t start = 0;         // where it begins in the line, in bytes
    bool beginsInHome = false;     // its first component is an unquoted "~"
    std::string expanded() const;  // "~" replaced by the home folder
  };
  std::vector<Word> words;
  bool endsInWord = false;  // no blank behind the last one
  bool endsInComment = false;
  bool endsInBackslash = false;  // that has nothing behind it
  Quote openQuote = Quote::none;

  static LineWords from(std::string_view line);
};

/// The words of a whole line, `~` expanded; nothing with an error (KZVHostErrorDomain, badInput) when a quote
/// is open at its end, or a backslash ends it.
std::optional<std::vector<std::string>> splitLine(std::string_view line, NSErrorRef* error);

/// `text` so that it reads as one word, or part of one, at a place inside `quote` (which stays open). The
/// beginning of a word is where "#" and "~" have a meaning.
std::string quoted(std::string_view text, Quote quote, bool beginsWord = true);

}  // namespace kzv::cli
