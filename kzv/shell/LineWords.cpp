#include "kzv/shell/LineWords.h"

#include "foundation/StandardFolders.h"
#include "kzv/HostError.h"

namespace kzv::cli {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

/// Splits a line into words.
class Scanner {
 public:
  explicit Scanner(std::string_view line) : line_(line) {}

  LineWords scan() {
    for (at_ = 0; at_ < line_.size() && !result_.endsInComment; ++at_) take(line_[at_]);
    return std::move(result_);
  }

 private:
  void take(char c) {
    if (result_.openQuote != Quote::none) return takeQuoted(c);
    if (isBlank(c)) {
      result_.endsInWord = false;
    } else if (c == '#' && !result_.endsInWord) {
      result_.endsInComment = true;
    } else {
      if (!result_.endsInWord) beginWord(c);
      takeBare(c);
    }
  }

  void beginWord(char c) {
    const bool isWhole = at_ + 1 == line_.size() || line_[at_ + 1] == '/' || isBlank(line_[at_ + 1]);
    result_.words.push_back({"", at_, c == '~' && isWhole});
    result_.endsInWord = true;
  }

  void takeBare(char c) {
    if (c == '\'') {
      result_.openQuote = Quote::single;
    } else if (c == '"') {
      result_.openQuote = Quote::doubled;
    } else if (c == '\\') {
      takeNext();
    } else {
      add(c);
    }
  }

  void takeQuoted(char c) {
    const bool isDouble = result_.openQuote == Quote::doubled;
    if (c == (isDouble ? '"' : '\'')) {
      result_.openQuote = Quote::none;
    } else if (isDouble && c == '\\' && (atEnd() || next() == '"' || next() == '\\')) {
      takeNext();
    } else {
      add(c);
    }
  }

  void takeNext() {
    result_.endsInBackslash = atEnd();
    if (!atEnd()) add(line_[++at_]);
  }
  bool atEnd() const { return at_ + 1 == line_.size(); }
  char next() const { return line_[at_ + 1]; }
  void add(char c) { result_.words.back().text += c; }

  const std::string_view line_;
  std::size_t at_ = 0;
  LineWords result_;
};

}  // namespace

LineWords LineWords::from(std::string_view line) { return Scanner(line).scan(); }

std::string LineWords::Word::expanded() const { return beginsInHome ? expandingTilde(text) : text; }

std::optional<std::vector<std::string>> splitLine(std::string_view line, NSErrorRef* error) {
  const LineWords taken = LineWords::from(line);
  const auto refuse = [&](const char* reason) {
    setError(error, hostError(HostErrorCode::badInput, reason));
    return std::nullopt;
  };
  if (taken.endsInBackslash) return refuse("there is a backslash at the end of the line");
  if (taken.openQuote == Quote::single) return refuse("a single quote is not closed");
  if (taken.openQuote == Quote::doubled) return refuse("a double quote is not closed");
  std::vector<std::string> words;
  words.reserve(taken.words.size());
  for (const LineWords::Word& word : taken.words) words.push_back(word.expanded());
  return words;
}

std::string quoted(std::string_view text, Quote quote, bool beginsWord) {
  if (quote == Quote::none && text.empty() && beginsWord) return "''";
  std::string out;
  for (const char c : text) {
    const bool isFirst = beginsWord && out.empty();
    if (quote == Quote::single && c == '\'') {
      out += R"('\'')";
      continue;
    }
    const bool needsBackslash =
        quote == Quote::doubled ? c == '"' || c == '\\'
                                : quote == Quote::none && (isBlank(c) || c == '"' || c == '\'' || c == '\\' ||
                                                           (isFirst && (c == '#' || c == '~')));
    if (needsBackslash) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace kzv::cli
