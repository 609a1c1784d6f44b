#include "kzv/shell/Completion.h"

#include <algorithm>

#include "foundation/Unicode.h"
#include "kzv/Formatting.h"
#include "kzv/shell/LineWords.h"

namespace kzv::cli {

namespace {

/// Determines the kind of the word at the cursor from the words before it.
class WordParser {
 public:
  WordParser(const std::vector<VerbSyntax>& verbs, const VerbSyntax& options)
      : verbs_(verbs), options_(options) {}

  void pass(const std::string& word) {
    if (value_ != nullptr) {
      value_ = nullptr;
    } else if (!endsOptions_ && word.starts_with('-')) {
      endsOptions_ = word == "--";
      value_ = valueKind(word);
      namesAccount_ = namesAccount_ || (value_ && *value_ == ArgumentKind::account);
    } else if (!isVerbKnown_) {
      passVerb(word);
    } else {
      ++arguments_;
    }
  }

  ArgumentKind kindOf(const std::string& word) const {
    if (value_) return *value_;
    if (!endsOptions_ && word.starts_with('-')) return ArgumentKind::option;
    if (!isVerbKnown_) return ArgumentKind::verb;
    if (!verb_ || verb_->arguments.empty()) return ArgumentKind::other;
    const std::size_t last = verb_->arguments.size() - 1;
    if (arguments_ > last && !verb_->repeatsLast) return ArgumentKind::other;
    return verb_->arguments[std::min(arguments_, last)];
  }

  std::vector<CompletionName> options() const {
    std::vector<CompletionName> names;
    for (const VerbSyntax* syntax : {verb_, &options_}) {
      if (!syntax) continue;
      for (const auto& [name, kind] : syntax->valueOptions) names.push_back({name});
      for (const std::string& name : syntax->flags) names.push_back({name});
    }
    return names;
  }

  /// Whether the line names an account of its own.
  bool namesAccount() const { return namesAccount_; }

 private:
  void passVerb(const std::string& word) {
    if (word == "kzv" && !isProgramNamed_) {
      isProgramNamed_ = true;
      return;
    }
    isVerbKnown_ = true;
    for (const VerbSyntax& verb : verbs_)
      if (verb.name == word) verb_ = &verb;
  }
  const ArgumentKind* valueKind(const std::string& option) const {
    for (const VerbSyntax* syntax : {verb_, &options_}) {
      if (!syntax) continue;
      if (const auto found = syntax->valueOptions.find(option); found != syntax->valueOptions.end())
        return &found->second;
    }
    return nullptr;
  }

  const std::vector<VerbSyntax>& verbs_;
  const VerbSyntax& options_;
  const VerbSyntax* verb_ = nullptr;
  const ArgumentKind* value_ = nullptr;  // the kind of value that the last option expects
  std::size_t arguments_ = 0;
  bool isProgramNamed_ = false;
  bool isVerbKnown_ = false;
  bool endsOptions_ = false;
  bool namesAccount_ = false;
};

bool isPath(ArgumentKind kind) {
  return kind == ArgumentKind::remotePath || kind == ArgumentKind::remoteFolder ||
         kind == ArgumentKind::localPath;
}

/// The names that begin with `leaf`. Hidden local files only if `leaf` begins with a dot.
std::vector<CompletionName> matching(std::vector<CompletionName> names, ArgumentKind kind,
                                     const std::string& leaf) {
  if (kind == ArgumentKind::localPath && !leaf.starts_with('.'))
    std::erase_if(names, [](const CompletionName& name) { return name.name.starts_with('.'); });
  std::vector<CompletionName> fitting;
  const auto keep = [&](auto fits) {
    for (const CompletionName& name : names) {
      const bool isTypable = harmless(name.name) == name.name;
      if (isTypable && fits(name.name)) fitting.push_back(name);
    }
  };
  keep([&](const std::string& name) { return name.starts_with(leaf); });
  if (fitting.empty())
    keep(
        [&, key = caselessKey(leaf)](const std::string& name) { return caselessKey(name).starts_with(key); });
  return fitting;
}

std::string commonBeginning(const std::vector<CompletionName>& names) {
  std::string common = names.front().name;
  for (const CompletionName& name : names) {
    const auto differ = std::mismatch(common.begin(), common.end(), name.name.begin(), name.name.end());
    common.erase(differ.first, common.end());
  }
  while (!isValidUtf8(common)) common.pop_back();  // cut inside a character
  return common;
}

std::string replacementFor(const LineWords::Word& word, const std::string& text, Quote quote) {
  const std::string mark = quote == Quote::single ? "'" : quote == Quote::doubled ? "\"" : "";
  if (!word.beginsInHome) return mark + (text.empty() ? text : quoted(text, quote));
  // The tilde is special only outside quotes.
  return "~/" + mark + quoted(text.substr(std::min<std::size_t>(text.size(), 2)), quote, false);
}

std::string expandedFolder(LineWords::Word word, const std::string& folder) {
  word.text = folder;
  std::string expanded = word.expanded();
  if (!expanded.empty() && !expanded.ends_with('/')) expanded += '/';
  return expanded;
}

std::string shown(const CompletionName& name) { return name.name + (name.isFolder ? "/" : ""); }

}  // namespace

std::optional<Completion> complete(std::string_view line, const std::vector<VerbSyntax>& verbs,
                                   const VerbSyntax& options, const CompletionNames& names) {
  LineWords taken = LineWords::from(line);
  if (taken.endsInComment || taken.endsInBackslash) return std::nullopt;
  if (!taken.endsInWord) taken.words.push_back({"", line.size(), false});
  const LineWords::Word word = std::move(taken.words.back());
  taken.words.pop_back();
  WordParser parser(verbs, options);
  for (const LineWords::Word& before : taken.words) parser.pass(before.text);

  const ArgumentKind kind = parser.kindOf(word.text);
  const bool isRemote = kind == ArgumentKind::remotePath || kind == ArgumentKind::remoteFolder;
  if (kind == ArgumentKind::other || (isRemote && parser.namesAccount())) return std::nullopt;
  const std::size_t slash = isPath(kind) ? word.text.rfind('/') : std::string::npos;
  const std::string folder = slash == std::string::npos ? "" : word.text.substr(0, slash + 1);
  const std::string leaf = word.text.substr(folder.size());
  if (word.beginsInHome && folder.empty()) return Completion{word.start, "~/", {}};

  auto fitting =
      matching(kind == ArgumentKind::option ? parser.options() : names(kind, expandedFolder(word, folder)),
               kind, leaf);
  if (fitting.empty()) return std::nullopt;
  std::sort(fitting.begin(), fitting.end(),
            [](const CompletionName& a, const CompletionName& b) { return a.name < b.name; });

  Completion completion;
  completion.start = word.start;
  if (fitting.size() == 1) {
    const CompletionName& only = fitting.front();
    completion.replacement = replacementFor(word, folder + shown(only), taken.openQuote);
    if (only.isFolder) return completion;
    if (taken.openQuote != Quote::none)
      completion.replacement += taken.openQuote == Quote::single ? '\'' : '"';
    completion.replacement += ' ';
    return completion;
  }
  std::string common = commonBeginning(fitting);
  if (common.size() <= leaf.size()) {
    for (const CompletionName& name : fitting) completion.choices.push_back(shown(name));
    common = leaf;
  }
  completion.replacement = replacementFor(word, folder + common, taken.openQuote);
  return completion;
}

}  // namespace kzv::cli
